#include "tools/orvel-sim/host/RecordingClients.h"

#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <utility>

#include "device/Traffic.h"

namespace orvel::sim {
namespace {

// Of one recorder. One that lets this much lie is not going to catch up, and the device must not grow for ever.
constexpr std::size_t kMostBytes = 64 << 20;
constexpr std::size_t kMuch = 4 << 20;  // worth being given back to the system
constexpr std::size_t kBytesAtOnce = 512 << 10;
// How long a recorder gets no answer while nothing happens; in between it looks whether it is to end.
constexpr std::chrono::milliseconds kPatience(200);

}  // namespace

void RecordingClients::add(RemotePtr endpoint) {
  vesk_remote* remote = endpoint.get();
  const pid_t pid = vesk_remote_pid(remote);
  if (m_recordingClients.count(pid) != 0)
    throw std::runtime_error("process " + std::to_string(pid) + " records already");
  m_recordingClients[pid].endpoint = std::move(endpoint);
  const auto gone = [](void* self, vesk_remote* which) { static_cast<RecordingClients*>(self)->remove(which); };
  check(vesk_remote_on_gone(remote, gone, this), "watching a recorder");
}

void RecordingClients::remove(const vesk_remote* endpoint) {
  const auto isIt = [&](const auto& recorder) { return recorder.second.endpoint.get() == endpoint; };
  const auto found = std::find_if(m_recordingClients.begin(), m_recordingClients.end(), isIt);
  if (found == m_recordingClients.end()) return;
  const bool keptMuch = found->second.mostBytes > kMuch;
  m_recordingClients.erase(found);
  // What many short lines took would stay with the device for good.
  if (keptMuch) malloc_trim(0);
  if (empty()) m_idle();
}

void RecordingClients::stop() {
  for (const auto& [pid, recorder] : m_recordingClients) vesk_remote_on_gone(recorder.endpoint.get(), nullptr, nullptr);
  m_recordingClients.clear();
}

void RecordingClients::record(const Json& entry) {
  if (empty()) return;
  const std::string line = entry.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
  for (auto& [pid, recorder] : m_recordingClients) record(recorder, line);
}

void RecordingClients::recordFor(pid_t recorder, const Json& entry) {
  record(m_recordingClients.at(recorder), entry.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n");
}

void RecordingClients::record(Recorder& recorder, const std::string& line) {
  if (recorder.bytes + line.size() > kMostBytes) return;
  recorder.lines.push_back(line);
  recorder.bytes += line.size();
  recorder.mostBytes = std::max(recorder.mostBytes, recorder.bytes);
  recorder.patience.reset();
  if (const Answer waiting = std::exchange(recorder.waiting, nullptr)) giveTo(recorder, waiting);
}

void RecordingClients::giveTo(Recorder& recorder, const Answer& answer) {
  std::string text;
  while (!recorder.lines.empty() && (text.empty() || text.size() + recorder.lines.front().size() <= kBytesAtOnce)) {
    const std::string& line = recorder.lines.front();
    const std::size_t end = pieceEnd(line, recorder.begin);
    text.append(line, recorder.begin, end - recorder.begin);
    recorder.bytes -= end - recorder.begin;
    recorder.begin = end;
    if (end != line.size()) break;
    recorder.lines.pop_front();
    recorder.begin = 0;
  }
  answer({{"text", text}});
}

void RecordingClients::fetch(pid_t recorder, bool wait, const Answer& answer) {
  const auto found = m_recordingClients.find(recorder);
  if (found == m_recordingClients.end())
    throw std::runtime_error("process " + std::to_string(recorder) + " records nothing");
  Recorder& fetching = found->second;
  if (!wait || !fetching.lines.empty()) return giveTo(fetching, answer);
  fetching.waiting = answer;
  const auto giveUp = [&fetching] {
    fetching.patience.reset();
    giveTo(fetching, std::exchange(fetching.waiting, nullptr));
  };
  fetching.patience = std::make_unique<Timer>(m_runtime, kPatience, giveUp);
}

}  // namespace orvel::sim
