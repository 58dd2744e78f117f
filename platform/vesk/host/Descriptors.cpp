#include "Descriptors.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace vesk {
namespace {

// What is behind each descriptor, by number; 0 where it is not this library's. In blocks that are made when they are
// needed and kept for ever, so that a forked child can read them although other threads were at work when it was made.
constexpr std::size_t kBlockSize = 1024;
// Beyond them, which takes a limit of over a million descriptors, a child keeps what it inherits.
constexpr std::size_t kBlocks = 1024;
using Block = std::array<std::atomic<std::uint64_t>, kBlockSize>;
std::array<std::atomic<Block*>, kBlocks> g_blocks;

std::atomic<std::uint64_t>* find(int fd) {
  const auto number = static_cast<std::size_t>(fd);
  if (fd < 0 || number >= kBlockSize * kBlocks) return nullptr;
  Block* const block = g_blocks[number / kBlockSize];
  return block == nullptr ? nullptr : &(*block)[number % kBlockSize];
}

// Never 0: the lowest bit is set.
std::uint64_t file_behind(int fd) {
  struct stat status {};
  if (::fstat(fd, &status) != 0) return 0;
  return (static_cast<std::uint64_t>(status.st_ino) ^ (static_cast<std::uint64_t>(status.st_dev) << 40U)) << 1U | 1U;
}

}  // namespace

void remember_descriptor(int fd) {
  const std::size_t block = static_cast<std::size_t>(fd) / kBlockSize;
  if (fd < 0 || block >= kBlocks) return;
  if (g_blocks[block] == nullptr) {
    auto fresh = std::make_unique<Block>();
    Block* none = nullptr;
    if (g_blocks[block].compare_exchange_strong(none, fresh.get())) static_cast<void>(fresh.release());
  }
  *find(fd) = file_behind(fd);
}

void forget_descriptor(int fd) {
  if (auto* const file = find(fd)) *file = 0;
}

void close_remembered_descriptors() noexcept {
  for (std::size_t fd = 0; fd < kBlockSize * kBlocks; ++fd) {
    auto* const file = find(static_cast<int>(fd));
    if (file == nullptr) {
      fd += kBlockSize - 1;
      continue;
    }
    const std::uint64_t remembered = file->exchange(0);
    if (remembered != 0 && remembered == file_behind(static_cast<int>(fd))) ::close(static_cast<int>(fd));
  }
}

}  // namespace vesk
