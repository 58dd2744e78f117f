// A file in memory, for readers that take a file's name.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "Fuzz.h"

namespace orvel::fuzz {

// One at a time: what it holds goes when the next text comes. Stays for good.
class MemoryFile {
 public:
  MemoryFile() : m_descriptor(::memfd_create("input", MFD_CLOEXEC)) {}

  // The name of a file that holds the text.
  std::string holding(const char* data, std::size_t size) const {
    require(::ftruncate(m_descriptor, 0) == 0 && ::pwrite(m_descriptor, data, size, 0) == static_cast<ssize_t>(size),
            "there is memory for a file");
    return "/proc/self/fd/" + std::to_string(m_descriptor);
  }
  std::string holding(const std::string& text) const { return holding(text.data(), text.size()); }

 private:
  int m_descriptor;
};

}  // namespace orvel::fuzz
