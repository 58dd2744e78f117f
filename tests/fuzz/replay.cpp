// Runs a fuzz target without libFuzzer: on files and folders, and on damaged copies of them.
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
#include "support/Runner.h"

// How a sanitizer says that it ends the process; there is none without one.
extern "C" [[gnu::weak]] void setDeathCallback(void (*callback)()) __asm__("__sanitizer_set_death_callback");

namespace {

using Bytes = std::vector<std::uint8_t>;

char g_current[4096];  // the input that the target has, for the last words of the process

void tellCurrent() {
  std::fprintf(stderr, "failed on %s\n", g_current);
}

void onSignal(int number) {
  tellCurrent();
  std::signal(number, SIG_DFL);
  std::raise(number);
}

void run(const Bytes& input, const std::string& name) {
  orvel::test::begin(name);
  std::snprintf(g_current, sizeof(g_current), "%s", name.c_str());
  const Bytes exact(input.begin(), input.end());  // so that a sanitizer sees each byte that is read behind the last one
  LLVMFuzzerTestOneInput(exact.data(), exact.size());
}

Bytes contentOf(const std::filesystem::path& file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
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

// One damage: a byte changed, a word that readers watch for, a cut, something twice, or the tail of another input.
void damage(Bytes& input, const Bytes& other, std::mt19937_64& random) {
  constexpr std::int32_t kWords[] = {0, 1, -1, 2, 6, 9, 30, 31, 1000, 1001, INT32_MAX, INT32_MIN};
  const auto below = [&random](std::size_t limit) { return limit == 0 ? 0 : random() % limit; };
  const std::size_t at = below(input.size());
  const auto place = input.begin() + static_cast<std::ptrdiff_t>(at);
  switch (input.empty() ? 4 : random() % 5) {
    case 0:
      *place = static_cast<std::uint8_t>(random());
      break;
    case 1:
      if (input.size() >= (at | 3U) + 1) std::memcpy(&input[at & ~3U], &kWords[below(std::size(kWords))], 4);
      break;
    case 2:
      input.resize(at);
      break;
    case 3: {
      const Bytes piece(place, place + static_cast<std::ptrdiff_t>(below(input.size() - at)));
      input.insert(place, piece.begin(), piece.end());
      break;
    }
    default:
      input.resize(at & ~std::size_t{3});
      input.insert(input.end(), other.begin() + static_cast<std::ptrdiff_t>(below(other.size()) & ~std::size_t{3}),
                   other.end());
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> paths;
  const std::string program = std::filesystem::path(argv[0]).filename();
  orvel::test::Runner runner(program, "Runs a fuzz target on inputs, and on damaged copies of them.", 500);
  runner.options().add_option("inputs", paths, "Files, and folders of files")->required()->check(CLI::ExistingPath);
  if (const auto status = runner.parse(argc, argv)) return *status;
  for (const int number : {SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL}) std::signal(number, onSignal);
  if (setDeathCallback != nullptr) setDeathCallback(tellCurrent);

  std::vector<Bytes> inputs = {{}};  // that no bytes at all are harmless is checked too
  const auto files = filesUnder(paths);
  for (const auto& file : files) inputs.push_back(contentOf(file));
  runner.add("whole", [&] {
    for (std::size_t n = 0; n < inputs.size(); ++n) run(inputs[n], n == 0 ? "no bytes" : files[n - 1].string());
  });
  runner.add("damaged", [&] {
    for (std::uint64_t seed = runner.seed(); seed < runner.seed() + static_cast<std::uint64_t>(runner.count());
         ++seed) {
      std::mt19937_64 random(seed);
      Bytes input = inputs[random() % inputs.size()];
      for (auto damages = 1 + random() % 4; damages > 0; --damages) {
        damage(input, inputs[random() % inputs.size()], random);
      }
      run(input, "--seed " + std::to_string(seed) + " --count 1 --only damaged");
    }
  });
  return runner.run([&] { return std::to_string(inputs.size()) + " inputs"; });
}
