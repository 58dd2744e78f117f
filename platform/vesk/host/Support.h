// Small pieces that the rest of the host runtime shares: errors and lines for the user.
#pragma once

#include <cerrno>
#include <system_error>

#include "vesk/message/Errors.h"
#include "vesk/message/UniqueFd.h"

namespace vesk {

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

}  // namespace vesk
