// A device for the client inside one process.
#pragma once

#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "support/Methods.h"
#include "support/Vesk.h"
#include "support/VirtualClock.h"

namespace orvel::test {

// The eight services on a fake libvesk.
class FakeServices {
 public:
  FakeServices() {
    vesk_get_runtime(&m_runtime);
    m_vesk.be_strict();
  }
  virtual ~FakeServices() = default;
  FakeServices(const FakeServices&) = delete;
  FakeServices& operator=(const FakeServices&) = delete;

  // Makes a service run that gives the good answers of the table of methods, or all eight.
  virtual void serve(const std::string& service) {
    m_vesk.add_service(service, [](const Transaction& call) { return Reply{good_reply(call.service, call.code), 0}; });
  }
  void start_services() {
    for (const char* service : kServices) serve(service);
  }
  // Makes `service` answer every call with `bytes`.
  void answer(const std::string& service, const Bytes& bytes, int result = 0) {
    m_vesk.add_service(service, [=](const Transaction&) { return Reply{bytes, result}; });
  }

  // The registrations, calls with an endpoint, that the service has taken over the client's newest connection to it.
  std::vector<Transaction> registrations(const std::string& service = kServices[kDelegate]) const {
    const std::vector<Transaction> calls = m_vesk.transactions(service);
    std::vector<Transaction> taken;
    for (const Transaction& call : calls) {
      const bool is_newest = call.connection == calls.back().connection;
      if (is_newest && !call.endpoints.empty() && call.result == 0) taken.push_back(call);
    }
    return taken;
  }
  // The setting key or the action that a registration with the delegate service is for.
  static std::string subject(const Transaction& registration) {
    const BufferPtr request = buffer_of(registration.request);
    for (int word = 0; word < 3; ++word) vesk_read_i32(request.get());
    read_ascii(request.get());  // the interface
    return read_ascii(request.get());
  }
  std::vector<std::string> subjects() const {
    std::vector<std::string> all;
    for (const Transaction& each : registrations()) all.push_back(subject(each));
    return all;
  }
  // Sends a broadcast, or the value of a setting, to all who are registered for it. How many those are.
  int send(const std::string& to, const Bytes& message) {
    int receivers = 0;
    for (const Transaction& each : registrations()) {
      if (subject(each) != to) continue;
      m_vesk.send(each.endpoints.front(), 1, message);
      ++receivers;
    }
    return receivers;
  }

  // Requests and replies that are allocated.
  int messages() const { return m_vesk.live().payloads + m_vesk.live().buffers; }

  // What a client that has stopped still holds of libvesk, as text; empty when it holds nothing. Lookups do not count:
  // a handle that could not be linked to its death stays bound. `forgotten`: nor do requests and replies.
  std::string left(bool forgotten) const {
    Live left = m_vesk.live();
    left.lookups = 0;
    if (forgotten) left.payloads = left.buffers = 0;
    std::ostringstream text;
    if (!(left == Live{})) text << "what is left: " << left;
    return text.str();
  }

  InprocessVesk m_vesk;
  void* m_runtime = nullptr;
};

// The same on a virtual clock, and what happens to every client: it subscribes, and its services die and come back.
class ClientFixture : public FakeServices {
 public:
  // Makes subscriptions of each kind: kRegistrations with the delegate service, and one published name.
  static void subscribe(Client& client) {
    for (const char* name : {"registerForSecureSettingIntChange", "registerForTimeSync", "registerForScreenStateChange",
                             "registerForDirective"}) {
      method(name).call(client, {});
    }
  }
  static constexpr std::size_t kRegistrations = 4;

  // The service dies, and runs again when the client's pause, in which `meanwhile` runs, is over. What follows is done
  // by m_vesk.drain().
  void die(
      const std::string& service, const std::function<void()>& meanwhile = [] {}) {
    m_clock.at_sleep(1, [this, service, meanwhile] {
      meanwhile();
      serve(service);
    });
    m_vesk.kill_service(service);
  }

  // The same where no thread is in the run loop: what follows is over when this returns.
  void die_and_return(
      const std::string& service, const std::function<void()>& meanwhile = [] {}) {
    die(service, meanwhile);
    m_vesk.run_pending();
  }

  VirtualClock m_clock;
};

}  // namespace orvel::test
