#include "races/FakeDevice.h"

#include <cerrno>
#include <chrono>
#include <iterator>

#include "races/Watchdog.h"
#include "support/ClientTest.h"
#include "support/FakeDelegate.h"

namespace orvel::races {
namespace {

using test::Bytes;
using test::kServices;
using test::Reply;

constexpr const char* kDelegate = kServices[0];
constexpr const char* kPower = kServices[1];
constexpr const char* kEvents = kServices[2];
constexpr const char* kConnectivity = kServices[7];
constexpr unsigned kRegisterForBroadcast = 28;
constexpr unsigned kRegisterForSecureSettings = 34;

// One broadcast with the extras of every kind, so that whoever gets it finds its own.
const Bytes& any_broadcast() {
  static const auto& message = *new Bytes(test::broadcast("any.action", "package:com.example.app", 4,
                                                          Bytes()
                                                              .utf16("com.quarlo.hux.sso.property.devicename")
                                                              .i32(0)
                                                              .utf16("Hall")
                                                              .utf16("com.quarlo.speech.EXTRA_CONNECTIVITY")
                                                              .i32(1)
                                                              .i32(1)
                                                              .utf16("com.quarlo.velmos.service.timeservice.clock."
                                                                     "OLD_TIME_MILLIS")
                                                              .i32(6)
                                                              .i64(1)
                                                              .utf16("packageName")
                                                              .i32(0)
                                                              .utf16("a.b")));
  return message;
}

}  // namespace

std::uint64_t FakeDevice::draw() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_random();
}

const char* FakeDevice::any_service() {
  return kServices[draw() % std::size(kServices)];
}

void FakeDevice::serve() {
  m_vesk.be_strict();
  for (const char* service : kServices) serve(service);
}

void FakeDevice::serve(const std::string& service) {
  m_vesk.add_service(service, [this](const test::Transaction& call) { return answer(call); });
}

Reply FakeDevice::answer(const test::Transaction& call) {
  switch (draw() % 256) {
    case 0:
      return {Bytes().i32(-1).utf16("an exception").i32(0), 0};
    case 1:
      return {{}, 0};
    case 2:
      return {{}, -EIO};
    case 3:
      ++m_kills;
      m_vesk.kill_service(call.service);
      return {};
    default:
      break;
  }
  if (!call.endpoints.empty()) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_sent[m_sents++ % m_sent.size()] = {call.service, call.code, call.endpoints.front()};
  }
  if (call.service == kDelegate) return {Bytes().i32(0).utf16("a name"), 0};
  return {Bytes().i32(0).i32(call.service == kPower ? 2 : 1).i32(0), 0};
}

void FakeDevice::notify() {
  const auto choice = draw();
  m_vesk.send("sim_broker_service_N" + std::to_string(choice % 4) + "_vesk_endpoint", 1, Bytes().utf16("a").utf16("b"));
  Sent to;
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    to = m_sent[choice % m_sent.size()];
  }
  if (to.service == kDelegate && to.code == kRegisterForBroadcast) m_vesk.send(to.endpoint, 1, any_broadcast());
  if (to.service == kDelegate && to.code == kRegisterForSecureSettings)
    m_vesk.call(to.endpoint, 1, test::setting("a", choice % 8 == 0 ? "no number" : "7"));
  if (to.service == kConnectivity) m_vesk.send(to.endpoint, choice % 2 == 0 ? 1 : 6, {});
  if (to.service == kEvents) {
    m_vesk.send(to.endpoint, 1, test::notification(Bytes().i32(1).i32(1)));
    if (choice % 4 == 0) m_vesk.release_endpoint(to.endpoint);
  }
}

void FakeDevice::act() {
  if (!m_held_calls.empty()) {
    if (draw() % 2 == 0) m_vesk.expire_calls(m_held_calls);
    m_vesk.let_calls_go(m_held_calls);
    m_held_calls.clear();
  }
  if (!m_held_binds.empty()) {
    m_vesk.complete_binds(m_held_binds);
    m_held_binds.clear();
  }
  const auto choice = draw() % 32;
  if (choice < 4) {
    ++m_kills;
    m_vesk.kill_service(any_service());
  } else if (choice < 12) {
    serve();  // what runs goes on as it was
  } else if (choice == 12) {
    m_vesk.hold_calls(m_held_calls = any_service());
  } else if (choice == 13) {
    m_vesk.hold_binds(m_held_binds = any_service());
  } else if (choice == 14) {
    m_vesk.refuse_binds(any_service(), 2);
  } else {
    for (int n = 0; n < 4; ++n) notify();
  }
}

void FakeDevice::start_acting() {
  m_stopped = false;
  m_actor = std::thread([this] {
    std::unique_lock<std::mutex> lock(m_mutex);
    do {
      lock.unlock();
      {
        const Watchdog::Step step("an act of the device");
        act();
      }
      lock.lock();
    } while (!m_changed.wait_for(lock, std::chrono::microseconds(200), [this] { return m_stopped; }));
  });
}

void FakeDevice::stop() {
  if (!m_actor.joinable()) return;
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_stopped = true;
  }
  m_changed.notify_all();
  m_actor.join();
  for (const char* service : kServices) {
    m_vesk.refuse_binds(service, 0);
    m_vesk.let_calls_go(service);
    m_vesk.complete_binds(service);
  }
}

}  // namespace orvel::races
