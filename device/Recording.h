// Recordings of the traffic: files of JSON lines, a header and then the entries as the traffic has them.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "device/Scenario.h"
#include "device/Service.h"
#include "device/Wire.h"

namespace orvel::sim {

// Says in which line of which file what is wrong.
struct RecordingError : ScenarioError {
  using ScenarioError::ScenarioError;
};

// The first line. `device` says what kind of device it was, and nothing of whose.
Json recordingHeader(const Json& device, bool masked);

// The line that stands for entries that are missing: so many after the one with that number.
Json recordingGap(std::uint64_t after, std::uint64_t entries);

// Beside such a line of no entries: what became of a service there, {"service", "alive", "pid", "timeMs", "timeUs"}.
// Programs that know nothing of it read it as a gap in which nothing is missing.
constexpr char kLife[] = "life";
Json recordedLife(const std::string& service, bool alive, pid_t process);

// The values that a recording hides unless it is asked not to: the name and the serial number, which the library itself
// writes at debug level only, the account, and the texts of people, applications and the assistant.
std::string describeMaskedValues();

// Puts "masked-1", "masked-2" ... in the place of those values; the same for the same value, wherever it stands.
class Redactions {
 public:
  // What identifies the owner is masked inside other texts too, from four characters on, once it is known. `scenario`
  // is the device's: it has these texts before a client has asked for them.
  explicit Redactions(const Json& scenario);

  void apply(Json& entry);

 private:
  std::string maskOf(const std::string& value);
  void learn(const std::string& identity);
  void maskIdentities(Json& value) const;

  std::map<std::string, std::string> m_masks;                     // by what they stand for
  std::vector<std::pair<std::string, std::string>> m_identities;  // and their masks
};

// True if a text of a masked recording may stand for the one given. A mask stands for the first text that it met, and
// for no other; `met` has those, by mask.
using MetTexts = std::map<std::string, std::string>;
bool mayStandFor(const Json& recorded, const Json& given, MetTexts& met);

bool isEmptyText(const Json& value);

struct RecordedEntry {
  std::size_t line;
  const ServiceType* type;
  const Method* method;            // null where no method has the code, and for a notification
  const CallbackMethod* callback;  // null for a request
  Json entry;
};

struct Recording {
  std::string file;
  bool masked;
  std::vector<RecordedEntry> entries;  // all can be sent: none is shortened, none was not delivered
  std::vector<std::string> warnings;   // what the file says is missing
};

// Throws RecordingError, and ScenarioError for a file that cannot be read.
Recording readRecording(const std::string& file);

// All that a recording shows, in its order.
struct RecordedTraffic {
  std::vector<Json> lines;            // entries, also those that cannot be sent, and gaps
  std::vector<std::string> warnings;  // what the file says is missing
};

// The same. Of a file that ends within a line the others are read, and the warnings say so.
RecordedTraffic readTraffic(const std::string& file);

}  // namespace orvel::sim
