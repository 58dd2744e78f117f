#include "device/Recording.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <fstream>
#include <limits>
#include <sstream>
#include <stdexcept>

#include "device/Traffic.h"
#include "device/services/Services.h"

namespace orvel::sim {
namespace {

constexpr char kFormat[] = "orvel-recording";
constexpr int kVersion = 1;

std::int64_t numberAt(const Json& object, const char* key, std::int64_t least, std::int64_t most) {
  const Json& value = object.at(key);
  const Shape shape = Shape::number(least, most);
  return complete(shape, value, std::string("/") + key).get<std::int64_t>();
}

const std::string& textAt(const Json& object, const char* key) {
  complete(Shape::text(), object.at(key), std::string("/") + key);
  return object.at(key).get_ref<const std::string&>();
}

// Throws what the writer does when it is not of the right form.
void tryToWrite(void (*write)(vesk_payload*, const Json&), const Json& value, const char* where) {
  const PayloadPtr payload(vesk_payload_alloc());
  try {
    write(payload.get(), value);
  } catch (const std::exception& error) {
    throw std::runtime_error(std::string(where) + ": " + plainText(error));
  }
}

void checkOutcome(const Json& entry) {
  constexpr const char* kOutcomes[] = {"reply", "exception", "error", "hangs", "drops"};
  const auto present = [&](const char* key) { return entry.contains(key); };
  if (std::count_if(std::begin(kOutcomes), std::end(kOutcomes), present) != 1) {
    throw std::runtime_error("expected one of reply, exception, error, hangs and drops");
  }
  if (const auto exception = entry.find("exception"); exception != entry.end()) {
    numberAt(*exception, "code", std::numeric_limits<std::int32_t>::min(), std::numeric_limits<std::int32_t>::max());
    textAt(*exception, "message");
    if (exception->contains("trace")) textAt(*exception, "trace");
  }
  for (const char* fault : {"hangs", "drops"}) {
    if (present(fault) && entry.at(fault) != true)
      throw std::runtime_error(std::string("/") + fault + ": expected true");
  }
  if (present("truncatedTo")) numberAt(entry, "truncatedTo", 0, std::numeric_limits<std::int32_t>::max());
}

// Those that have changed a call.
void checkFaults(const Json& faults) {
  if (!faults.is_array()) throw std::runtime_error("/faults: expected a list");
  for (const Json& fault : faults) {
    faultKindCalled(textAt(fault, "fault"));
    textAt(fault, "method");
  }
}

RecordedEntry checkEntry(Json entry, std::size_t line) {
  if (!entry.is_object()) throw std::runtime_error("expected an object");
  RecordedEntry checked = {line, &serviceCalled(textAt(entry, "service")), nullptr, nullptr, std::move(entry)};
  const Json& given = checked.entry;
  constexpr std::int64_t kMost = std::numeric_limits<std::int32_t>::max();
  for (const char* key : {"pid", "servicePid"}) numberAt(given, key, 0, kMost);
  for (const char* key : {"timeMs", "number"}) numberAt(given, key, 0, std::numeric_limits<std::int64_t>::max() / 1000);
  if (given.contains("thread")) numberAt(given, "thread", 1, kMost);
  if (given.contains("timeUs")) numberAt(given, "timeUs", 0, std::numeric_limits<std::int64_t>::max());
  if (given.contains("durationMs") && !given.at("durationMs").is_number()) {
    throw std::runtime_error("/durationMs: not a number");
  }
  if (given.contains("client")) textAt(given, "client");
  if (given.contains("error")) complete(errorShape(), given.at("error"), "/error");
  const char* const named = given.contains("notification") ? "notification" : "method";
  if (!given.at(named).is_null()) textAt(given, named);
  checkFaults(given.value("faults", Json::array()));
  const auto code = static_cast<unsigned>(numberAt(given, "code", 0, std::numeric_limits<std::uint32_t>::max()));
  if (given.contains("shortened")) {
    if (!given.at("arguments").is_object()) textAt(given, "arguments");
    if (!given.contains("notification")) checkOutcome(given);
    return checked;
  }
  if (!given.at("arguments").is_object()) throw std::runtime_error("/arguments: expected an object");
  if (given.contains("notification")) {
    const std::string& name = textAt(given, "notification");
    const auto& callbacks = checked.type->callbacks;
    const auto isIt = [&](const CallbackMethod* callback) { return callback->name == name && callback->code == code; };
    const auto found = std::find_if(callbacks.begin(), callbacks.end(), isIt);
    if (found == callbacks.end()) {
      throw std::runtime_error(checked.type->id + " has no notification called " + name + ", code " +
                               std::to_string(code));
    }
    checked.callback = *found;
    // A directive goes to the client that holds its namespace, everything else to an endpoint that a request has
    // brought.
    if (checked.type != &coordinatorService()) {
      numberAt(given, "endpoint", 0, std::numeric_limits<std::int64_t>::max());
    } else if (given.contains("endpoint")) {
      throw std::runtime_error("/endpoint: a directive has none");
    }
    tryToWrite(checked.callback->write, given.at("arguments"), "/arguments");
    return checked;
  }
  checked.method = methodWith(*checked.type, code);
  const Json& name = given.at("method");
  if (name != (checked.method == nullptr ? Json() : Json(checked.method->name))) {
    throw std::runtime_error(checked.type->id + " has no method " + name.dump() + " with the code " +
                             std::to_string(code));
  }
  if (given.contains("endpoints")) {
    complete(Shape::list(Shape::number(0, std::numeric_limits<std::int64_t>::max()), 1000), given.at("endpoints"),
             "/endpoints");
  }
  checkOutcome(given);
  if (const auto reply = given.find("reply"); reply != given.end()) {
    if (checked.method == nullptr) throw std::runtime_error("a reply, but no method");
    tryToWrite(checked.method->write, *reply, "/reply");
  }
  return checked;
}

// Adds what it says to the warnings.
void warnOfGap(const Json& line, const std::string& where, std::vector<std::string>& warnings) {
  const Json& gap = line.at("gap");
  constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max();
  numberAt(gap, "after", 0, kMost);
  const std::int64_t entries = numberAt(gap, "entries", 0, kMost);
  if (entries != 0)
    warnings.push_back(where + countedEntries(static_cast<std::uint64_t>(entries)) + (entries == 1 ? " is" : " are") +
                       " missing");
  if (!line.contains(kLife)) return;
  const Json& life = line.at(kLife);
  serviceCalled(textAt(life, "service"));
  complete(Shape::flag(), life.at("alive"), "/life/alive");
  numberAt(life, "pid", 0, std::numeric_limits<std::int32_t>::max());
  numberAt(life, "timeMs", 0, kMost / 1000);
  numberAt(life, "timeUs", 0, kMost);
}

void checkHeader(const Json& header) {
  if (!header.is_object() || header.value("format", Json()) != kFormat) {
    throw std::runtime_error(std::string("not a recording: expected a header with the format \"") + kFormat + "\"");
  }
  if (header.value("version", Json()) != kVersion) {
    throw std::runtime_error("a recording of version " + header.value("version", Json()).dump() +
                             "; this program knows version " + std::to_string(kVersion));
  }
  if (!header.value("masked", Json()).is_boolean()) throw std::runtime_error("/masked: expected true or false");
}

// Of one that was read to its end.
bool endsWithLine(std::istream& stream) {
  stream.clear();
  stream.seekg(-1, std::ios::end);
  return stream.get() == '\n';
}

// Calls `take` with each line behind the header, its number, and how to say where it is. `isEnd` is asked whether to
// end before a line with a mistake, and told whether that is the last one without its end. Gives the header.
template <typename Take, typename IsEnd>
Json forEachLine(const std::string& file, const Take& take, const IsEnd& isEnd) {
  std::ifstream stream = openToRead(file);
  Json header;
  std::size_t number = 0;
  for (std::string text;;) {
    const std::string where = file + ":" + std::to_string(++number) + ": ";
    try {
      if (!readUpTo(stream, '\n', text)) break;
      Json line = parseMessage(text);
      if (number == 1) {
        checkHeader(line);
        header = std::move(line);
      } else {
        take(std::move(line), number, where);
      }
    } catch (const std::exception& error) {
      const bool isCut = stream.rdbuf()->sgetc() == std::char_traits<char>::eof() && !endsWithLine(stream);
      if (number > 1 && isEnd(where, isCut)) break;
      const std::string what = plainText(error);
      const bool isOther = number == 1 && what.rfind("not JSON", 0) == 0;
      throw RecordingError(where + (isOther ? "not a recording: " : "") + what);
    }
  }
  if (number == 1) throw RecordingError(file + ":1: not a recording: the file is empty");
  return header;
}

}  // namespace

Json recordingHeader(const Json& device, bool masked) {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return {{"format", kFormat},
          {"version", kVersion},
          {"timeMs", std::chrono::duration_cast<std::chrono::milliseconds>(now).count()},
          {"device", device},
          {"masked", masked}};
}

Json recordingGap(std::uint64_t after, std::uint64_t entries) {
  return {{"gap", {{"after", after}, {"entries", entries}}}};
}

Json recordedLife(const std::string& service, bool alive, pid_t process) {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return {{"service", service},
          {"alive", alive},
          {"pid", process},
          {"timeMs", std::chrono::duration_cast<std::chrono::milliseconds>(now).count()},
          {"timeUs", std::chrono::duration_cast<std::chrono::microseconds>(now).count()}};
}

Recording readRecording(const std::string& file) {
  Recording recording = {file, false, {}, {}};
  const auto take = [&](Json line, std::size_t number, const std::string& where) {
    if (line.contains("gap")) return warnOfGap(line, where, recording.warnings);
    RecordedEntry checked = checkEntry(std::move(line), number);
    if (checked.entry.contains("shortened")) {
      recording.warnings.push_back(where + "was shortened before the recording began, and is left out");
    } else if (checked.callback == nullptr || !checked.entry.contains("error")) {
      recording.entries.push_back(std::move(checked));
    }
  };
  const auto refuse = [](const std::string&, bool) { return false; };
  recording.masked = forEachLine(file, take, refuse).at("masked");
  return recording;
}

RecordedTraffic readTraffic(const std::string& file) {
  RecordedTraffic traffic;
  const auto take = [&](Json line, std::size_t number, const std::string& where) {
    if (line.contains("gap")) {
      warnOfGap(line, where, traffic.warnings);
      traffic.lines.push_back(std::move(line));
    } else {
      traffic.lines.push_back(checkEntry(std::move(line), number).entry);
    }
  };
  const auto endThere = [&](const std::string& where, bool isCut) {
    if (isCut) traffic.warnings.push_back(where + "ends within the line, which is left out");
    return isCut;
  };
  forEachLine(file, take, endThere);
  return traffic;
}

}  // namespace orvel::sim
