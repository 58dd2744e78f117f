#include "World.h"

#include <android/log.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <future>
#include <stdexcept>
#include <utility>

namespace orvel::test::simulation {
namespace {

const char* name_of(int service) {
  return kServices.at(static_cast<std::size_t>(service));
}

bool begins(const Bytes& message, const Bytes& head) {
  return message.size() >= head.size() && std::memcmp(message.data(), head.data(), head.size()) == 0;
}

}  // namespace

World::World(Choices& choices, Trace& trace) : m_choices(choices), m_trace(trace) {
  __android_log_set_minimum_priority(ANDROID_LOG_SILENT);
  m_vesk.keep_quiet();
  m_vesk.be_strict();
  m_vesk.hold_run_loop();
  m_clock.at_sleep(1, [this] { slept(); });
}

void World::run() {
  for (int service = 0; service < kServiceCount; ++service) {
    if (!m_choices.one_in(32)) start(service);
  }
  if (!m_choices.one_in(16)) {
    call(row_of("initialize"));
    finish_stop();
  }
  for (std::size_t left = 4 + m_choices.below(40); left > 0; --left) {
    act(During::kNothing);
    finish_stop();
    if (m_running && !m_choices.one_in(4)) drain();
  }
  m_budget = 0;
  call(row_of("shutdown"));
}

void World::drain() {
  record({Kind::kDrain});
  m_vesk.drain();
  finish_stop();
  record({Kind::kDrained});
}

// ---- What happens ----

void World::disturb(During during) {
  if (m_depth >= 2) return;
  ++m_depth;
  while (m_budget > 0 && m_choices.one_in(8)) {
    --m_budget;
    act(during);
  }
  --m_depth;
}

void World::act(During during) {
  const bool may_call = during == During::kNothing || during == During::kRebind || during == During::kCallback;
  const std::size_t what = m_choices.below(16);
  if (what < 8 && may_call) {
    call(some_method());
  } else if (what < 11) {
    notify();
  } else if (what < 15) {
    change_services();
  } else if (during != During::kNothing && m_choices.one_in(4)) {
    stop();
  }
}

void World::start(int service) {
  record({Kind::kStart, service});
  m_vesk.add_service(name_of(service), [this, service](const Transaction& call) { return answer(service, call); });
}

void World::kill(int service) {
  record({Kind::kKill, service});
  m_vesk.kill_service(name_of(service));
}

void World::complete(int service) {
  record({Kind::kComplete, service});
  m_vesk.complete_binds(name_of(service));
}

void World::change_services() {
  static constexpr std::array<int, 12> kLikely = {kDelegate,   kDelegate, kDelegate,     kDirectives,
                                                  kDirectives, kPower,    kEvents,       kMetrics,
                                                  kActivities, kPackages, kConnectivity, kConnectivity};
  const int service = m_choices.of(kLikely);
  const std::size_t what = m_choices.below(16);
  if (what < 5) return start(service);
  if (what < 9) return kill(service);
  if (what == 9) {
    const int count = 1 + static_cast<int>(m_choices.below(4));
    record({Kind::kRefuse, service, count});
    return m_vesk.refuse_binds(name_of(service), count);
  }
  if (what == 10) {
    record({Kind::kHold, service});
    return m_vesk.hold_binds(name_of(service));
  }
  if (what == 11) return complete(service);
  if (what == 12) {
    const std::string taken = published_name(m_choices.of(kNamespaces));
    record({Kind::kTakeName, 0, 0, taken});
    return m_vesk.add_service(taken);
  }
  for (int each = 0; each < kServiceCount; ++each) {
    complete(each);
    start(each);
  }
}

void World::notify() {
  Event event{Kind::kSend, -1};
  Target target{std::weak_ptr<const void>()};
  if (m_sent.empty() || m_choices.one_in(6)) {
    event.text = published_name(m_choices.of(kNamespaces));
    event.b = static_cast<int>(notices().size()) - 1;
    target = Target(event.text);
  } else {
    const std::size_t place = m_sent.size() - 1 - m_choices.below(std::min<std::size_t>(m_sent.size(), 16));
    event.a = static_cast<int>(place);
    event.b = m_choices.of(m_sent[place].notices);
    event.flag = notices().at(static_cast<std::size_t>(event.b)).two_way != m_choices.one_in(8);
    target = Target(m_sent[place].transfer);
  }
  record(event);
  const Notice& notice = notices().at(static_cast<std::size_t>(event.b));
  if (!event.flag) return m_vesk.send(target, notice.code, notice.message);
  auto reply = std::make_shared<std::future<Reply>>(m_vesk.call(target, notice.code, notice.message));
  m_vesk.post([this, reply] {
    const Reply given = reply->get();
    record({Kind::kAnswer, given.result, 0, {}, given.bytes});
  });
}

// On a thread of its own, as far as it comes while this one is in the middle of something.
void World::stop() {
  if (m_stopping || !(m_running || m_starting)) return;
  m_stopping = true;
  record({Kind::kStop});
  // Its end lets another thread join it, which must find it here.
  const auto go = std::make_shared<std::promise<void>>();
  m_stopper = std::thread([begin = go->get_future().share()] {
    begin.wait();
    Client::getClient().shutdown();
  });
  go->set_value();
  m_vesk.wait_for_shutdown();
}

void World::finish_stop() {
  if (!m_stopping) return;
  m_stopper.join();
  m_stopping = false;
  m_running = false;
  record({Kind::kStopped});
}

void World::slept() {
  m_clock.at_sleep(1, [this] { slept(); });
  record({Kind::kSleep, static_cast<int>(m_clock.sleeps().back())});
  disturb(m_starting ? During::kStart : During::kRebind);
  record({Kind::kAwake});
}

void World::heard(int callback, const std::string& values) {
  record({Kind::kCallback, callback, 0, values});
  disturb(During::kCallback);
  const bool throws = m_choices.one_in(24);
  record({Kind::kCallbackEnd, 0, 0, {}, {}, throws});
  if (throws) throw std::runtime_error("a callback of the caller's");
}

Reply World::answer(int service, const Transaction& call) {
  record({Kind::kRequest, service, static_cast<int>(call.code), {}, call.request, !call.transfers.empty()});
  if (!call.transfers.empty()) {
    Sent sent{call.transfers.front(), {}};
    for (std::size_t n = 0; n < notices().size(); ++n) {
      const RequestOf& to = notices()[n].to;
      const unsigned code = method_at(to.row).requests.at(static_cast<std::size_t>(to.place)).code;
      if (code == call.code && begins(call.request, head_of(to))) sent.notices.push_back(static_cast<int>(n));
    }
    m_sent.push_back(std::move(sent));
  }
  if (m_choices.one_in(32)) kill(service);
  disturb(During::kCall);
  const std::size_t what = m_choices.below(24);
  const Bytes exception = Bytes().i32(-3).utf16("no").i32(0);
  Reply reply = what == 20  ? Reply{exception, 0}
                : what < 22 ? Reply{good_reply(call.service, call.code), 0}
                            : Reply{{}, -EIO};
  record({Kind::kReply, what == 20 ? kExceptionReply : reply.result});
  return reply;
}

// ---- Calls ----

int World::some_method() {
  // Without subscriptions there is nothing to notify or to lose, so they come more often.
  static const std::vector<int> subscriptions = [] {
    std::vector<int> rows;
    for (const Notice& each : notices()) rows.push_back(each.to.row);
    return rows;
  }();
  const int count = static_cast<int>(methods().size());
  if (m_choices.one_in(3)) {
    const int row = m_choices.of(subscriptions);
    const bool is_directive = method_at(row).service == kDirectives;
    return is_directive ? count - 1 - static_cast<int>(m_choices.below(kNamespaces.size())) : row;
  }
  const int row = static_cast<int>(m_choices.below(methods().size()));
  return row == row_of("shutdown") && !m_choices.one_in(3) ? row_of("getDeviceName") : row;
}

void World::call(int row) {
  const int callback = m_calls++;
  record({Kind::kCall, row, callback});
  record({Kind::kReturn, 0, 0, perform(row, callback)});
}

std::string World::perform(int row, int callback) {
  const bool starts = row == row_of("initialize") && !m_running;
  if (starts) m_starting = true;
  const Hear hear = [this, callback, alive = m_callbacks](const std::string& values) { heard(callback, values); };
  std::string result = method_at(row).call(Client::getClient(), hear);
  if (starts) m_starting = false;
  if (starts) m_running = result == "true";
  if (row == row_of("shutdown") && m_depth == 0) m_running = false;
  return result;
}

}  // namespace orvel::test::simulation
