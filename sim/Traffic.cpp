#include "sim/Traffic.h"

#include <unistd.h>

#include <cmath>
#include <cstring>
#include <ctime>
#include <iomanip>
#include <sstream>

namespace orvel::sim {

Json trafficEntry(const std::string& service, const char* kind, const Json& name, unsigned code, pid_t client,
                  const Json& arguments) {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return {
      {"timeMs", std::chrono::duration_cast<std::chrono::milliseconds>(now).count()},
      {"service", service},
      {kind, name},
      {"code", code},
      {"pid", client},
      {"servicePid", getpid()},
      {"arguments", shortened(arguments)},
  };
}

Json shortened(const Json& value) {
  constexpr std::size_t kLongest = 16 << 10;
  std::string text = value.dump(-1, ' ', false, Json::error_handler_t::replace);
  if (text.size() <= kLongest) return value;
  const std::size_t whole = text.size();
  text.resize(kLongest);
  return text + "... (" + std::to_string(whole) + " bytes)";
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
  const Json& arguments = entry.at("arguments");
  const char* separator = "";
  line << '(';
  if (arguments.is_object()) {
    for (const auto& [name, value] : arguments.items()) {
      line << separator << name << ": " << value.dump();
      separator = ", ";
    }
  } else {
    line << arguments.get_ref<const std::string&>();  // a part of what was too long to be kept
  }
  line << ')';
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
  if (entry.contains("durationMs")) line << "  " << entry.at("durationMs").dump() << " ms";
  line << ", process " << entry.at("pid").dump();
  return line.str();
}

}  // namespace orvel::sim
