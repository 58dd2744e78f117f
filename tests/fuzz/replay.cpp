// Runs a fuzz target without libFuzzer: on files and folders, and on inputs that it makes out of them.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "Fuzz.h"

// Both are optional: what a target does first, and how a sanitizer tells that it ends the process.
extern "C" {
[[gnu::weak]] int LLVMFuzzerInitialize(int* count, char*** arguments);
[[gnu::weak]] void setDeathCallback(void (*callback)()) __asm__("__sanitizer_set_death_callback");
}

namespace {

using Bytes = std::vector<std::uint8_t>;

char g_current[4096];  // what the process is busy with, for its last words

void tellCurrent() {
  std::fprintf(stderr, "failed on %s\n", g_current);
}

void onSignal(int number) {
  tellCurrent();
  std::signal(number, SIG_DFL);
  std::raise(number);
}

void run(const Bytes& input, const std::string& name) {
  std::snprintf(g_current, sizeof(g_current), "%s", name.c_str());
  // A copy of just that size, which is watched to its last byte.
  const Bytes exact(input.begin(), input.end());
  LLVMFuzzerTestOneInput(exact.data(), exact.size());
}

std::vector<std::filesystem::path> filesUnder(const std::vector<std::string>& paths) {
  std::vector<std::filesystem::path> files;
  for (const std::filesystem::path path : paths) {
    if (!std::filesystem::is_directory(path)) {
      files.push_back(path);
      continue;
    }
    for (const auto& entry : std::filesystem::directory_iterator(path)) files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

// One damage: bytes changed, a word that readers watch for, a cut, something twice, or the tail of another input.
void damage(Bytes& input, const Bytes& other, std::mt19937& random) {
  constexpr std::int32_t kWords[] = {0, 1, -1, 2, 6, 9, 30, 31, 1000, 1001, INT32_MAX, INT32_MIN};
  const auto below = [&random](std::size_t limit) { return limit == 0 ? 0 : random() % limit; };
  const auto at = static_cast<std::ptrdiff_t>(below(input.size()));
  const std::size_t left = input.size() - static_cast<std::size_t>(at);
  switch (random() % 5) {
    case 0:
      if (!input.empty()) input[static_cast<std::size_t>(at)] = static_cast<std::uint8_t>(random());
      break;
    case 1:
      if (left >= 4) {
        std::memcpy(input.data() + (at & ~3), &kWords[below(std::size(kWords))], 4);
      }
      break;
    case 2:
      input.resize(static_cast<std::size_t>(at));
      break;
    case 3: {
      const Bytes piece(input.begin() + at, input.begin() + at + static_cast<std::ptrdiff_t>(below(left)));
      input.insert(input.begin() + at, piece.begin(), piece.end());
      break;
    }
    default:
      input.resize(static_cast<std::size_t>(at) & ~std::size_t{3});
      input.insert(input.end(), other.begin() + static_cast<std::ptrdiff_t>(below(other.size()) & ~std::size_t{3}),
                   other.end());
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> paths;
  std::uint64_t seed = 1;
  std::uint64_t count = 0;
  CLI::App app("Runs a fuzz target on inputs, and on damaged copies of them.");
  app.add_option("inputs", paths, "Files, and folders of files")->required()->check(CLI::ExistingPath);
  app.add_option("--seed", seed, "The first damaged copy; the next has the next number")->capture_default_str();
  app.add_option("--count", count, "How many damaged copies are made")->capture_default_str();
  CLI11_PARSE(app, argc, argv);

  for (const int number : {SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL}) std::signal(number, onSignal);
  if (setDeathCallback != nullptr) setDeathCallback(tellCurrent);
  if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);

  std::vector<Bytes> inputs = {{}};  // that no bytes at all are harmless is checked too
  for (const auto& file : filesUnder(paths)) {
    std::ifstream stream(file, std::ios::binary);
    inputs.emplace_back(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
    run(inputs.back(), file.string());
  }
  if (inputs.size() == 1) {
    std::fprintf(stderr, "there are no inputs\n");
    return 1;
  }
  run(inputs.front(), "the empty input");
  for (std::uint64_t n = 0; n < count; ++n) {
    std::mt19937 random(static_cast<std::mt19937::result_type>(seed + n));
    Bytes input = inputs[random() % inputs.size()];
    for (auto damages = 1 + random() % 4; damages > 0; --damages) {
      damage(input, inputs[random() % inputs.size()], random);
    }
    run(input, "--seed " + std::to_string(seed + n) + " --count 1");
  }
  std::printf("%s: seed %llu, %zu inputs, %llu damaged copies, ok\n", std::filesystem::path(argv[0]).filename().c_str(),
              static_cast<unsigned long long>(seed), inputs.size(), static_cast<unsigned long long>(count));
  return 0;
}
