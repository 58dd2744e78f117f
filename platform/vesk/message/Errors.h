// How what C++ code throws becomes a result of the C interface.
#pragma once

#include <cerrno>
#include <new>
#include <system_error>

namespace vesk {

// Runs `body` and turns what it throws into an error code: nothing may leave through a C frame.
template <typename Body>
int as_error_code(const Body& body) noexcept {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return -ENOMEM;
  } catch (const std::system_error& error) {
    return -error.code().value();
  } catch (...) {
    return -EIO;
  }
}

}  // namespace vesk
