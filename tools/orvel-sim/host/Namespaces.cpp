#include "tools/orvel-sim/host/Namespaces.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

#include "device/ServiceNames.h"
#include "device/Traffic.h"

namespace orvel::sim {
namespace {

// A file's name has %XX in the place of what is no letter, digit, '-', '_' or '.'.
std::string serviceNameOf(const std::string& file) {
  constexpr int kHexadecimal = 16;
  std::string name;
  for (std::size_t at = 0; at < file.size(); ++at) {
    if (file[at] != '%') {
      name += file[at];
    } else {
      name += static_cast<char>(std::strtol(file.substr(at + 1, 2).c_str(), nullptr, kHexadecimal));
      at += 2;
    }
  }
  return name;
}

}  // namespace

pid_t serverOf(const std::filesystem::path& link) {
  constexpr char kSocket[] = ".socket-";
  std::error_code error;
  const std::string target = std::filesystem::read_symlink(link, error);
  const bool isSocket = !error && target.rfind(kSocket, 0) == 0;
  return isSocket ? std::atoi(target.c_str() + sizeof(kSocket) - 1) : 0;
}

pid_t serverOfName(const std::string& name) {
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(vesk_runtime_directory(), error)) {
    if (serviceNameOf(entry.path().filename()) == name) return serverOf(entry.path());
  }
  return 0;
}

Json heldNamespaces() {
  Json held = Json::array();
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(vesk_runtime_directory(), error)) {
    const std::string nspace = namespaceIn(serviceNameOf(entry.path().filename()));
    if (nspace.empty()) continue;
    const pid_t pid = serverOf(entry.path());
    held.push_back({{"namespace", nspace}, {"pid", pid}, {"client", programOf(pid)}});
  }
  std::sort(held.begin(), held.end(),
            [](const Json& a, const Json& b) { return a.at("namespace") < b.at("namespace"); });
  return held;
}

}  // namespace orvel::sim
