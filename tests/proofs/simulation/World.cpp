#include <android/log.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <memory>
#include <random>
#include <utility>
#include <vector>

#include "Trace.h"
#include "support/VirtualClock.h"

namespace orvel::test::simulation {
namespace {

// One thread decides at a time, so that the same choices give the same trace: the run loop works only while the
// caller's thread waits for it, and what happens inside waits, calls and callbacks happens on the thread that is there.
class World {
 public:
  World(std::uint64_t seed, Trace& trace) : m_random(seed), m_trace(trace) {
    __android_log_set_minimum_priority(ANDROID_LOG_SILENT);
    m_vesk.be_strict();
    m_vesk.hold_run_loop();
    m_clock.at_sleep(1, [this] { slept(); });
  }

  std::string run() {
    for (int service = 0; service < kServiceCount; ++service) {
      if (!one_in(32)) start(service);
    }
    if (!one_in(16)) call(row_of("initialize"));
    for (std::size_t left = 4 + below(40); left > 0; --left) {
      act(/*may_call=*/true);
      if (m_running && !one_in(4)) drain();
    }
    m_budget = 0;
    call(row_of("shutdown"));
    return describe_end(m_vesk.bindings(), m_vesk.live(), m_callbacks.use_count() - 1,
                        Client::getClient().isMaroConnected());
  }

 private:
  // An endpoint that a service got, and the notices that fit it.
  struct Sent {
    std::weak_ptr<const void> transfer;
    std::vector<int> notices;
  };

  // ---- Choices ----

  // A number below `limit`, which is at least 1. The standard library's distributions differ between machines.
  std::size_t below(std::size_t limit) { return m_random() % limit; }
  bool one_in(std::size_t count) { return below(count) == count - 1; }
  template <typename Items>
  const auto& any_of(const Items& items) {
    return items[below(items.size())];
  }

  void record(Event event) { m_trace.push_back(std::move(event)); }

  // ---- What happens ----

  // Lets things happen in the middle of something, public calls included if the thread may make one there.
  void disturb(bool may_call) {
    if (m_depth >= 2) return;
    ++m_depth;
    while (m_budget > 0 && one_in(8)) {
      --m_budget;
      act(may_call);
    }
    --m_depth;
  }

  void act(bool may_call) {
    const std::size_t what = below(16);
    if (what < 8 && may_call) {
      call(some_method());
    } else if (what < 11) {
      notify();
    } else {
      change_services();
    }
  }

  void drain() {
    record({Kind::kDrain});
    m_vesk.drain();
    record({Kind::kDrained});
  }

  void start(int service) {
    record({Kind::kStart, service});
    m_vesk.add_service(name_of(service), [this, service](const Transaction& call) { return answer(service, call); });
  }

  void kill(int service) {
    record({Kind::kKill, service});
    m_vesk.kill_service(name_of(service));
  }

  void change_services() {
    const int service = one_in(3) ? kDelegate : static_cast<int>(below(kServiceCount));
    const std::size_t what = below(16);
    if (what < 5) {
      start(service);
    } else if (what < 9) {
      kill(service);
    } else if (what < 11) {
      record({Kind::kHold, service});
      m_vesk.hold_binds(name_of(service));
    } else {
      for (int each = 0; each < kServiceCount; ++each) {
        record({Kind::kComplete, each});
        m_vesk.complete_binds(name_of(each));
        start(each);
      }
    }
  }

  void notify() {
    Event event{Kind::kSend, -1};
    Target target{std::weak_ptr<const void>()};
    if (m_sent.empty() || one_in(6)) {
      event.text = published_name(any_of(kNamespaces));
      event.b = static_cast<int>(notices().size()) - 1;
      target = Target(event.text);
    } else {
      const std::size_t place = m_sent.size() - 1 - below(std::min<std::size_t>(m_sent.size(), 16));
      event.a = static_cast<int>(place);
      event.b = any_of(m_sent[place].notices);
      target = Target(m_sent[place].transfer);
    }
    record(event);
    const Notice& notice = notice_at(event.b);
    const bool is_setting = notice.to.request->code == 34;  // whose sender waits for an answer
    is_setting ? void(m_vesk.call(target, notice.code, notice.message))
               : m_vesk.send(target, notice.code, notice.message);
  }

  void slept() {
    m_clock.at_sleep(1, [this] { slept(); });
    record({Kind::kSleep, static_cast<int>(m_clock.sleeps().back())});
    disturb(/*may_call=*/!m_starting);
    record({Kind::kAwake});
  }

  void heard(int callback, const std::string& values) {
    record({Kind::kCallback, callback, 0, values});
    disturb(/*may_call=*/true);
    record({Kind::kCallbackEnd});
  }

  Reply answer(int service, const Transaction& call) {
    const bool has_endpoint = !call.transfers.empty();
    record({Kind::kRequest, service, static_cast<int>(call.code), has_endpoint ? "endpoint" : "", call.request});
    if (has_endpoint) {
      Sent sent{call.transfers.front(), {}};
      for (std::size_t n = 0; n < notices().size(); ++n) {
        const Bytes head = notices()[n].to.head();
        const bool is_its = notices()[n].to.request->code == call.code && head.size() <= call.request.size() &&
                            std::memcmp(call.request.data(), head.data(), head.size()) == 0;
        if (is_its) sent.notices.push_back(static_cast<int>(n));
      }
      m_sent.push_back(std::move(sent));
    }
    if (one_in(32)) kill(service);
    disturb(/*may_call=*/false);
    const std::size_t what = below(24);
    Reply reply = what == 20  ? Reply{wire("-3 'no' 0"), 0}
                  : what < 22 ? Reply{good_reply(call.service, call.code), 0}
                              : Reply{{}, -EIO};
    record({Kind::kReply, what == 20 ? kExceptionReply : reply.result});
    return reply;
  }

  // ---- Calls ----

  int some_method() {
    const std::size_t count = methods().size();
    if (one_in(3)) {  // without subscriptions there is nothing to notify or to lose, so they come more often
      const Method& method = *any_of(notices()).to.method;
      return static_cast<int>(method.service == kDirectives ? count - 1 - below(kNamespaces.size())
                                                            : static_cast<std::size_t>(&method - methods().data()));
    }
    const int row = static_cast<int>(below(count));
    return row == row_of("shutdown") && !one_in(3) ? row_of("getDeviceName") : row;
  }

  void call(int row) {
    const int callback = m_calls++;
    record({Kind::kCall, row, callback});
    const bool starts = row == row_of("initialize") && !m_running;
    if (starts) m_starting = true;
    const Hear hear = [this, callback, alive = m_callbacks](const std::string& values) { heard(callback, values); };
    const std::string result = method_at(row).call(Client::getClient(), hear);
    if (starts) m_starting = false;
    if (starts) m_running = result == "true";
    if (row == row_of("shutdown") && m_depth == 0) m_running = false;
    record({Kind::kReturn, 0, 0, result});
  }

  std::mt19937_64 m_random;
  Trace& m_trace;
  InprocessVesk m_vesk;
  VirtualClock m_clock;
  std::vector<Sent> m_sent;
  const std::shared_ptr<int> m_callbacks = std::make_shared<int>();  // each callback holds it too
  int m_calls = 0;
  bool m_running = false;  // the client is initialised
  bool m_starting = false;
  int m_depth = 0;
  int m_budget = 150;  // of what may happen in between
};

}  // namespace

std::string run_world(std::uint64_t seed, Trace& trace) {
  return World(seed, trace).run();
}

}  // namespace orvel::test::simulation
