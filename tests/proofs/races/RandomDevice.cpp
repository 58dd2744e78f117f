#include "races/RandomDevice.h"

#include <cerrno>
#include <chrono>

#include "support/Notifications.h"

namespace orvel::races {
namespace {

using test::Bytes;
using test::kServices;
using test::Reply;
using test::wire;

// One broadcast with the extras of every kind, in which each listener finds its own.
Bytes any_broadcast() {
  return test::broadcast(
      "any.action", "package:com.example.app", 4,
      wire("'com.quarlo.hux.sso.property.devicename' 0 'Hall' "
           "'com.quarlo.speech.EXTRA_CONNECTIVITY' 1 1 "
           "'com.quarlo.velmos.service.timeservice.clock.OLD_TIME_MILLIS' 6 1L 'packageName' 0 'a.b'"));
}

}  // namespace

std::uint64_t RandomDevice::draw() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_random();
}

void RandomDevice::serve(const std::string& service) {
  m_vesk.add_service(service, [this](const test::Transaction& call) { return reply(call); });
}

Reply RandomDevice::reply(const test::Transaction& call) {
  const auto choice = draw() % 256;
  if (choice == 0) return {wire("-1 'no' 0"), 0};
  if (choice == 1) return {{}, -EIO};
  if (choice == 2) {
    ++m_kills;
    m_vesk.kill_service(call.service);
    return {};
  }
  if (!call.endpoints.empty()) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_registrations[m_registered++ % m_registrations.size()] = call;
  }
  if (m_wrong && call.service == kServices[test::kDelegate] && call.code == 33) return {wire("0 'wrong'"), 0};
  return {test::good_reply(call.service, call.code), 0};
}

void RandomDevice::notify() {
  const auto choice = draw();
  m_vesk.send("sim_broker_service_N" + std::to_string(choice % 4) + "_vesk_endpoint", 1, wire("'a' 'b'"));
  test::Transaction to;
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    to = m_registrations[choice % m_registrations.size()];
  }
  if (to.endpoints.empty()) return;
  vesk_endpoint* const endpoint = to.endpoints.front();
  if (to.service == kServices[test::kConnectivity]) {
    m_vesk.send(endpoint, choice % 2 == 0 ? 1 : 6, {});
  } else if (to.service == kServices[test::kEvents]) {
    m_vesk.send(endpoint, 1, test::notification(wire("1 1")));
    if (choice % 4 == 0) m_vesk.release_endpoint(endpoint);
  } else if (to.code == 34) {
    m_vesk.call(endpoint, 1, test::setting("k", choice % 8 == 0 ? "no number" : "7"));
  } else {
    m_vesk.send(endpoint, 1, any_broadcast());
  }
}

void RandomDevice::act() {
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
    start_services();  // what runs goes on as it was
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

void RandomDevice::start_acting() {
  m_stopped = false;
  m_actor = std::thread([this] {
    std::unique_lock<std::mutex> lock(m_mutex);
    do {
      lock.unlock();
      act();
      lock.lock();
    } while (!m_changed.wait_for(lock, std::chrono::microseconds(200), [this] { return m_stopped; }));
  });
}

void RandomDevice::stop() {
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
