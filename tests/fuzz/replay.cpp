// Runs a fuzz target without libFuzzer: on each input of its corpus.
#include <CLI/CLI.hpp>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include "Fuzz.h"
#include "support/Runner.h"

namespace {

void run(const std::string& file) {
  std::ifstream stream(file, std::ios::binary);
  // Of just that size, so that a sanitizer sees each byte that is read behind the last one.
  std::vector<std::uint8_t> input{std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
  input.shrink_to_fit();
  LLVMFuzzerTestOneInput(input.data(), input.size());
}

}  // namespace

int main(int argc, char** argv) {
  std::string corpus;
  const std::string program = std::filesystem::path(argv[0]).filename();
  orvel::test::Runner runner(program, "Runs a fuzz target on the inputs of its corpus.");
  runner.options().add_option("corpus", corpus, "A folder of files")->required()->check(CLI::ExistingDirectory);
  if (const auto status = runner.parse(argc, argv)) return *status;
  const std::filesystem::directory_iterator begin(corpus);
  std::set<std::filesystem::path> files(begin, std::filesystem::directory_iterator());
  files.insert("/dev/null");  // that no bytes at all are harmless is checked too
  for (const std::filesystem::path& file : files) runner.add(file, [&file] { run(file); });
  return runner.run([] { return "all read"; });
}
