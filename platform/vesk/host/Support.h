// Small pieces that the rest of the host runtime shares: owned descriptors, errors, lines for the user.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <new>
#include <system_error>
#include <utility>

namespace vesk {

// Owns one descriptor.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : m_fd(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : m_fd(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    reset(other.release());
    return *this;
  }
  ~UniqueFd() { reset(); }

  [[nodiscard]] int get() const { return m_fd; }
  explicit operator bool() const { return m_fd >= 0; }
  int release() { return std::exchange(m_fd, -1); }
  void reset(int fd = -1) {
    if (m_fd >= 0) ::close(m_fd);
    m_fd = fd;
  }

 private:
  int m_fd = -1;
};

// Passes a non-negative result on and throws a negated errno, as libsystemd reports failures.
inline int check(int result) {
  if (result < 0) throw std::system_error(-result, std::generic_category());
  return result;
}

// The same for system calls, which leave the reason in errno.
inline int check_errno(int result) {
  return check(result < 0 ? -errno : result);
}

// One line for the person at the terminal, in one write so that the lines of several processes do not mix.
[[gnu::format(printf, 1, 2)]] void complain(const char* format, ...);

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
