#include "device/Traffic.h"

#include <unistd.h>

#include <array>
#include <climits>
#include <cmath>
#include <cstring>
#include <ctime>
#include <iomanip>
#include <sstream>
#include <utility>
#include <vector>

#include "device/Faults.h"

namespace orvel::sim {

std::string programOf(pid_t process) {
  std::array<char, PATH_MAX> path{};
  const std::string link = "/proc/" + std::to_string(process) + "/exe";
  if (readlink(link.c_str(), path.data(), path.size() - 1) < 0) return {};
  const std::string file = path.data();
  constexpr char kDeleted[] = " (deleted)";  // since it was started
  const std::string name = file.substr(file.rfind('/') + 1);
  return name.substr(0, name.rfind(kDeleted));
}

Json trafficEntry(const std::string& service, const char* kind, const Json& name, unsigned code, pid_t client,
                  const Json& arguments, const Json& moment) {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  Json entry = {
      {"timeMs", std::chrono::duration_cast<std::chrono::milliseconds>(now).count()},
      {"timeUs", std::chrono::duration_cast<std::chrono::microseconds>(now).count()},
      {"service", service},
      {kind, name},
      {"code", code},
      {"pid", client},
      {"client", programOf(client)},
      {"servicePid", getpid()},
      {"arguments", arguments},
  };
  if (!moment.is_null()) entry.update(moment);
  return entry;
}

Json shortened(const Json& value) {
  constexpr std::size_t kLongest = 16 << 10;
  std::string text = value.dump(-1, ' ', false, Json::error_handler_t::replace);
  if (text.size() <= kLongest) return value;
  const std::size_t whole = text.size();
  text.resize(kLongest);
  return text + "... (" + std::to_string(whole) + " bytes)";
}

void shortenEntry(Json& entry) {
  if (entry.contains("shortened")) return;
  Json shorter = Json::array();
  for (const char* path : {"/arguments", "/reply", "/exception/message", "/exception/trace"}) {
    const Json::json_pointer pointer(path);
    if (!entry.contains(pointer)) continue;
    Json& value = entry[pointer];
    Json text = shortened(value);
    if (text == value) continue;
    value = std::move(text);
    shorter.push_back(path + 1);
  }
  if (!shorter.empty()) entry["shortened"] = std::move(shorter);
}

std::size_t pieceEnd(const std::string& text, std::size_t begin) {
  constexpr std::size_t kLongest = 512 << 10;
  if (text.size() - begin <= kLongest) return text.size();
  std::size_t end = begin + kLongest;
  while ((static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80) --end;  // not inside a character
  return end;
}

std::string describeArguments(const Json& arguments) {
  if (!arguments.is_object()) return "(" + arguments.get<std::string>() + ")";  // of what was too long to be kept
  std::string text;
  for (const auto& [name, value] : arguments.items()) text += (text.empty() ? "" : ", ") + name + ": " + value.dump();
  return "(" + text + ")";
}

std::int64_t millisecondsSince1970() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

double millisecondsSince(Clock::time_point start) {
  const std::chrono::duration<double, std::milli> duration = Clock::now() - start;
  return std::round(duration.count() * 1000) / 1000;
}

std::string clockTime(std::int64_t millisecondsSince1970) {
  const std::time_t seconds = millisecondsSince1970 / 1000;
  std::tm local{};
  localtime_r(&seconds, &local);
  std::ostringstream time;
  time << std::put_time(&local, "%T") << '.' << std::setw(3) << std::setfill('0') << millisecondsSince1970 % 1000;
  return time.str();
}

std::string describeName(const Json& entry) {
  const std::string service = entry.at("service");
  const auto notification = entry.find("notification");
  if (notification != entry.end()) return service + " -> " + notification->get<std::string>();
  const Json& method = entry.at("method");
  return service + "." + (method.is_null() ? "transaction " + entry.at("code").dump() : method.get<std::string>());
}

std::string describeResult(const Json& entry) {
  std::vector<std::string> parts;
  if (entry.contains("reply")) parts.push_back("= " + entry.at("reply").dump());
  if (entry.contains("exception")) {
    const Json& exception = entry.at("exception");
    parts.push_back("throws " + exception.at("code").dump() + " " + exception.at("message").dump());
  }
  if (entry.contains("error")) {
    const auto error = entry.at("error").get<int>();
    const char* const name = strerrorname_np(-error);
    parts.push_back("fails with " + (name == nullptr ? std::to_string(error) : std::string(name)) + " (" +
                    std::strerror(-error) + ")");
  }
  if (entry.contains("truncatedTo")) parts.push_back("cut to " + entry.at("truncatedTo").dump() + " bytes");
  if (entry.contains("hangs")) parts.emplace_back("hangs");
  if (entry.contains("drops")) parts.emplace_back("drops the connection");
  return joined(parts, " ");
}

std::string describeFaults(const Json& entry) {
  std::string text;
  for (const Json& fault : entry.value("faults", Json::array())) {
    const std::string kind = faultKindCalled(fault.at("fault")).verb;
    text += (text.empty() ? "by " : ", by ") + kind + " on " + fault.at("method").get<std::string>();
  }
  return text;
}

std::string describeOutcome(const Json& entry) {
  const std::string result = describeResult(entry);
  const std::string faults = describeFaults(entry);
  return result + (result.empty() || faults.empty() ? "" : ", ") + faults;
}

std::string describeProcess(pid_t process) {
  const std::string program = programOf(process);
  return "process " + std::to_string(process) + (program.empty() ? "" : " (" + program + ")");
}

std::string withCommas(std::uint64_t number) {
  std::string text = std::to_string(number);
  constexpr std::size_t kGroup = 3;
  for (std::size_t at = text.size(); at > kGroup;) text.insert(at -= kGroup, ",");
  return text;
}

std::string countedEntries(std::uint64_t number) {
  return withCommas(number) + (number == 1 ? " entry" : " entries");
}

}  // namespace orvel::sim
