// The delegate service as its receivers know it: it takes registrations, and can be told what to send.
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "support/Vesk.h"

namespace orvel::test {

// What every message to an endpoint begins with; the values mean nothing to the library.
inline Bytes notification(const Bytes& contents) {
  return Bytes().i32(7).i32(8).i32(9).utf16("any.IReceiver").append(contents);
}

inline Bytes setting(const char* key, const char* value) {
  return notification(Bytes().utf16(key).utf16(value));
}

// `extras` are `count` entries, each a key, a type and a value.
inline Bytes broadcast(const char* action, const char* data, int count = 0, const Bytes& extras = {}) {
  Bytes intent = Bytes().i32(1).i32(4).utf16(action).utf16(data).null().null().i32(0);
  if (count > 0) intent.i32(1).i32(count).append(extras);
  return notification(count > 0 ? intent : intent.i32(0));
}

struct Registration {
  unsigned code;
  std::string subject;  // setting key or action
  Bytes request;
  vesk_endpoint* endpoint;
};

// Serves "orvel_delegate". Each start() is a new life, which knows nothing of the earlier ones. Any thread.
class FakeDelegate {
 public:
  static constexpr char kName[] = "orvel_delegate";

  explicit FakeDelegate(InprocessVesk& vesk) : m_vesk(vesk) {}

  void start() {
    std::size_t life = 0;
    {
      const std::lock_guard<std::mutex> lock(m_mutex);
      life = m_lives.size();
      m_lives.emplace_back();
    }
    m_vesk.add_service(kName, [this, life](const Transaction& call) { return take(call, life); });
  }

  // What the calls of this code are answered with, in place of success.
  void refuse(unsigned code, Bytes reply) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_refusals[code] = std::move(reply);
  }
  void accept(unsigned code) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_refusals.erase(code);
  }

  // Called for each registration before it is answered. Set it while nothing is called.
  std::function<void()> before_answer;

  std::vector<Registration> registrations(std::size_t life) const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_lives[life];
  }
  std::vector<Registration> registrations() const { return registrations(lives() - 1); }
  std::size_t lives() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_lives.size();
  }

  std::vector<std::string> subjects() const {
    std::vector<std::string> all;
    for (const Registration& each : registrations()) all.push_back(each.subject);
    return all;
  }

  // How many receivers of that action it was sent to.
  int send(const char* action, const Bytes& message) {
    int receivers = 0;
    for (const Registration& each : registrations()) {
      if (each.subject != action) continue;
      m_vesk.send(each.endpoint, 1, message);
      ++receivers;
    }
    return receivers;
  }

 private:
  Reply take(const Transaction& call, std::size_t life) {
    if (call.endpoints.empty()) return {Bytes().i32(0).utf16("a name"), 0};
    const BufferPtr request = buffer_of(call.request);
    for (int word = 0; word < 3; ++word) vesk_read_i32(request.get());
    read_ascii(request.get());
    if (before_answer) before_answer();
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (const auto refusal = m_refusals.find(call.code); refusal != m_refusals.end()) return {refusal->second, 0};
    m_lives[life].push_back({call.code, read_ascii(request.get()), call.request, call.endpoints.front()});
    return {Bytes().i32(0), 0};
  }

  InprocessVesk& m_vesk;
  mutable std::mutex m_mutex;
  std::vector<std::vector<Registration>> m_lives;
  std::map<unsigned, Bytes> m_refusals;
};

}  // namespace orvel::test
