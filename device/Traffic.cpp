#include "device/Traffic.h"

#include <unistd.h>

#include <cmath>
#include <cstring>
#include <ctime>
#include <iomanip>
#include <sstream>
#include <utility>

namespace orvel::sim {

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

std::string describeEntry(const Json& entry) {
  std::ostringstream line;
  line << clockTime(entry.at("timeMs")) << "  " << entry.at("service").get<std::string>();
  if (const auto notification = entry.find("notification"); notification != entry.end()) {
    line << " -> " << notification->get<std::string>();
  } else {
    const Json& method = entry.at("method");
    line << '.' << (method.is_null() ? "transaction " + entry.at("code").dump() : method.get<std::string>());
  }
  line << describeArguments(entry.at("arguments"));
  if (entry.contains("reply")) line << " = " << entry.at("reply").dump();
  if (entry.contains("exception")) {
    const Json& exception = entry.at("exception");
    line << " throws " << exception.at("code").dump() << ' ' << exception.at("message").dump();
  }
  if (entry.contains("error")) {
    const auto error = entry.at("error").get<int>();
    line << " fails with " << error << " (" << std::strerror(-error) << ')';
  }
  if (entry.contains("truncatedTo")) line << " cut to " << entry.at("truncatedTo").dump() << " bytes";
  if (entry.contains("hangs")) line << " hangs";
  if (entry.contains("drops")) line << " drops the connection";
  if (entry.contains("durationMs")) line << "  " << entry.at("durationMs").dump() << " ms";
  line << ", process " << entry.at("pid").dump();
  return line.str();
}

}  // namespace orvel::sim
