#include "tools/orvel-sim/verbs/Seeds.h"

#include <algorithm>
#include <map>
#include <new>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>

#include "tools/orvel-sim/host/OutputFile.h"

namespace orvel::sim {
namespace {

template <typename Write>
std::string bytesOf(const Write& write) {
  const PayloadPtr payload(vesk_payload_alloc());
  if (!payload) throw std::bad_alloc();
  write(payload.get());
  std::size_t size = 0;
  const auto* bytes = static_cast<const char*>(vesk_payload_data(payload.get(), &size));
  return {bytes, size};
}

// Empty for a call that failed, or was not answered.
std::string replyOf(const RecordedEntry& recorded) {
  const Json& entry = recorded.entry;
  std::string message;
  if (const auto exception = entry.find("exception"); exception != entry.end()) {
    const RemoteException thrown(exception->at("code"), exception->at("message"), exception->value("trace", ""));
    message = bytesOf([&](vesk_payload* payload) { writeException(payload, thrown); });
  } else if (const auto reply = entry.find("reply"); reply != entry.end()) {
    message = bytesOf([&](vesk_payload* payload) {
      vesk_write_i32(payload, 0);
      recorded.method->write(payload, *reply);
    });
  }
  if (entry.contains("truncatedTo")) message.resize(std::min<std::size_t>(message.size(), entry.at("truncatedTo")));
  return message;
}

std::string notificationOf(const RecordedEntry& recorded) {
  const CallbackMethod& method = *recorded.callback;
  return bytesOf([&](vesk_payload* payload) {
    if (!method.descriptor.empty()) writeHeader(payload, method.descriptor);
    method.write(payload, recorded.entry.at("arguments"));
  });
}

// A call with a code that no method has goes by that code.
std::string nameOf(const RecordedEntry& recorded) {
  if (recorded.callback != nullptr) return recorded.callback->name;
  return recorded.method != nullptr ? recorded.method->name : recorded.entry.at("code").dump();
}

}  // namespace

std::size_t writeSeeds(const Recording& recording, const std::filesystem::path& folder) {
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  if (error) throw std::runtime_error(folder.string() + ": cannot be made: " + error.message());
  std::map<std::string, std::set<std::string>> written;  // the messages of each method
  std::size_t count = 0;
  for (const RecordedEntry& recorded : recording.entries) {
    const bool isReply = recorded.callback == nullptr;
    const std::string message = isReply ? replyOf(recorded) : notificationOf(recorded);
    if (isReply && message.empty()) continue;
    const std::string name = recorded.type->id + "." + nameOf(recorded);
    auto& known = written[name];
    if (!known.insert(message).second) continue;
    OutputFile(folder / (name + "." + std::to_string(known.size() - 1)), /*replace=*/true).write(message);
    ++count;
  }
  return count;
}

}  // namespace orvel::sim
