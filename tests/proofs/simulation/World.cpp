#include "World.h"

#include <android/log.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <future>
#include <stdexcept>
#include <utility>

#include "orvel/OrvelDelegateClient.h"
#include "orvel/OrvelIntent.h"
#include "orvel/TarselMetricEvent.h"

namespace orvel::fuzz {
namespace {

using namespace test;          // NOLINT(google-build-using-namespace)
using namespace service_apis;  // NOLINT(google-build-using-namespace)

// Where the lines of this thread go, and those of every other one.
thread_local std::vector<Event>* t_events = nullptr;
std::vector<Event>* g_events = nullptr;

void record_line(const __android_logger_data* data, const char* message) {
  std::vector<Event>* const events = t_events != nullptr ? t_events : g_events;
  if (events == nullptr) return;
  const Kind kind = data->priority == ANDROID_LOG_ERROR ? Kind::kError : Kind::kLine;
  events->push_back({kind, 0, 0, message});
}

OrvelDelegateClient& client() {
  return OrvelDelegateClient::getClient();
}

OrvelIntent intent_of(const Call& call) {
  OrvelIntent intent;
  intent.action = call.texts[0];
  intent.data = call.texts[1];
  intent.package = call.texts[2];
  intent.component = {call.texts[1], call.texts[2]};
  if (call.number % 2 != 0) intent.extras.put("n", call.number);
  if (call.number % 3 == 0) intent.extras.put("l", call.flags);
  if (call.number > 5) intent.categories = {call.texts[0], "c"};
  intent.flags = call.number;
  return intent;
}

void fill(TarselMetricEvent& event, const Call& call) {
  event.header1 = call.texts[0];
  event.header2 = call.texts[1];
  std::string value = call.texts[2];
  if (call.number % 2 != 0) event.addStringEvent("text", value);
  if (call.number % 3 == 0) event.addLongEvent("long", call.flags);
  if (call.number == 4) event.addPredefinedEvent(TarselPredefined::kDeviceType);
  if (call.number == 7) event.fields["unset"] = std::make_unique<TarselMetricEventFieldValue>();
  if (call.number == 7) event.fields["unset"]->kind = TarselMetricEventFieldValue::kUnset;
}

}  // namespace

World::World(Choices& choices, Trace& trace, bool lines) : m_choices(choices), m_trace(trace) {
  g_events = &m_trace.events;
  __android_log_set_minimum_priority(lines ? ANDROID_LOG_VERBOSE : ANDROID_LOG_ERROR);
  __android_log_set_logger(record_line);
  m_vesk.keep_quiet();
  m_vesk.be_strict();
  m_vesk.hold_run_loop();
  m_clock.at_sleep(1, [this] { slept(); });
}

World::~World() {
  g_events = nullptr;
}

void World::record(Event event) {
  m_trace.events.push_back(std::move(event));
}

void World::run() {
  for (int service = 0; service < kServiceCount; ++service) {
    if (!m_choices.one_in(32)) start(service);
  }
  if (!m_choices.one_in(16)) {
    m_trace.calls.push_back({k_initialize, {}});
    record({Kind::kCall, 0});
    record({Kind::kReturn, 0, 0, perform(m_trace.calls.back())});
    finish_stop();
  }
  for (unsigned left = 4 + m_choices.below(40); left > 0; --left) {
    act(During::kNothing);
    finish_stop();
    if (m_running && !m_choices.one_in(4)) {
      record({Kind::kDrain});
      m_vesk.drain();
      finish_stop();
      record({Kind::kDrained});
    }
  }
  m_budget = 0;
  m_trace.calls.push_back({k_shutdown, {}});
  record({Kind::kCall, static_cast<int>(m_trace.calls.size()) - 1});
  record({Kind::kReturn, 0, 0, perform(m_trace.calls.back())});
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
  const unsigned what = m_choices.below(16);
  if (what < 8 && may_call) {
    call();
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
  m_vesk.add_service(kServices.at(static_cast<std::size_t>(service)),
                     [this, service](const Transaction& request) { return answer(service, request); });
}

void World::kill(int service) {
  record({Kind::kKill, service});
  m_vesk.kill_service(kServices.at(static_cast<std::size_t>(service)));
}

void World::change_services() {
  static constexpr std::array<int, 12> kLikely = {kDelegate,   kDelegate, kDelegate,     kDirectives,
                                                  kDirectives, kPower,    kEvents,       kMetrics,
                                                  kActivities, kPackages, kConnectivity, kConnectivity};
  const int service = m_choices.of(kLikely);
  const std::string name = kServices.at(static_cast<std::size_t>(service));
  switch (m_choices.below(16)) {
    case 0:
    case 1:
    case 2:
    case 3:
    case 4:
      return start(service);
    case 5:
    case 6:
    case 7:
    case 8:
      return kill(service);
    case 9: {
      const int count = 1 + static_cast<int>(m_choices.below(4));
      record({Kind::kRefuse, service, count});
      return m_vesk.refuse_binds(name, count);
    }
    case 10:
      record({Kind::kHold, service});
      return m_vesk.hold_binds(name);
    case 11:
      record({Kind::kComplete, service});
      return m_vesk.complete_binds(name);
    case 12: {
      const std::string taken = "sim_broker_service_" + some_text() + "_vesk_endpoint";
      record({Kind::kTakeName, 0, 0, taken, {}});
      return m_vesk.add_service(taken);
    }
    case 13:
      record({Kind::kBreakRuntime});
      return m_vesk.fail_once("vesk_get_runtime", 1, -EIO);
    default:
      for (int each = 0; each < kServiceCount; ++each) {
        record({Kind::kComplete, each});
        m_vesk.complete_binds(kServices.at(static_cast<std::size_t>(each)));
        start(each);
      }
  }
}

void World::notify() {
  Event event{Kind::kSend, -1, static_cast<int>(m_choices.below(8)), {}, {}};
  const bool by_name = m_sent.empty() || m_choices.one_in(6);
  Target target{std::weak_ptr<const void>()};
  if (by_name) {
    event.text = "sim_broker_service_" + some_text() + "_vesk_endpoint";
    event.bytes = damaged(some_notification(kDirectives, 0));
    target = Target(event.text);
  } else {
    const auto back = m_choices.below(static_cast<unsigned>(std::min<std::size_t>(m_sent.size(), 16)));
    event.a = static_cast<int>(m_sent.size() - 1 - back);
    const Sent& sent = m_sent[static_cast<std::size_t>(event.a)];
    event.bytes = damaged(some_notification(sent.service, sent.code));
    event.two_way = (sent.code == 34) != m_choices.one_in(8);
    target = Target(sent.transfer);
  }
  record(event);
  const auto code = static_cast<unsigned>(event.b);
  if (!event.two_way) return m_vesk.send(target, code, event.bytes);
  auto reply = std::make_shared<std::future<Reply>>(m_vesk.call(target, code, event.bytes));
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
  m_stopper = std::thread([this, begin = go->get_future().share()] {
    begin.wait();
    t_events = &m_stopper_events;
    client().shutdown();
  });
  go->set_value();
  m_vesk.wait_for_shutdown();
}

void World::finish_stop() {
  if (!m_stopping) return;
  m_stopper.join();
  m_stopping = false;
  for (Event& event : std::exchange(m_stopper_events, {})) record(std::move(event));
  m_running = false;
  record({Kind::kStopped});
}

void World::slept() {
  m_clock.at_sleep(1, [this] { slept(); });
  record({Kind::kSleep, static_cast<int>(m_clock.sleeps().back())});
  disturb(m_starting ? During::kStart : During::kRebind);
  record({Kind::kAwake});
}

void World::heard(int callback, const std::string& arguments) {
  record({Kind::kCallback, callback, 0, arguments, {}});
  disturb(During::kCallback);
  const bool throws = m_choices.one_in(24);
  record({Kind::kCallbackEnd, throws ? 1 : 0});
  if (throws) throw std::runtime_error("a callback of the caller's");
}

// ---- What services say ----

std::string World::some_text() {
  static constexpr std::array<const char*, 12> kTexts = {"x",    "",      "Alerts",      "a.b", "12",      "<unknown>",
                                                         "  -3", "12abc", "99999999999", "y",   "Speaker", "volume"};
  return m_choices.of(kTexts);
}

Bytes World::some_texts(int least, int most) {
  const int count = least + static_cast<int>(m_choices.below(static_cast<unsigned>(most - least + 1)));
  Bytes bytes;
  for (int n = 0; n < count; ++n) bytes.utf16(some_text());
  if (least == most) return bytes;
  static constexpr std::array<int, 8> kLies = {0, 0, 0, 0, 0, 1, -1, 100000};
  return Bytes().i32(count + m_choices.of(kLies)).append(bytes);
}

Bytes World::some_entries(bool with_longs) {
  static constexpr std::array<const char*, 6> kKeys = {"com.quarlo.hux.sso.property.devicename",
                                                       "com.quarlo.speech.EXTRA_CONNECTIVITY",
                                                       "packageName",
                                                       "com.quarlo.velmos.service.timeservice.clock.OLD_TIME_MILLIS",
                                                       "com.quarlo.velmos.service.timeservice.clock.NEW_TIME_MILLIS",
                                                       "x"};
  const unsigned count = m_choices.below(5);
  Bytes bytes;
  for (unsigned n = 0; n < count; ++n) {
    bytes.utf16(m_choices.of(kKeys));
    const unsigned kind = m_choices.below(8);
    if (kind < 2) {
      bytes.i32(0).utf16(some_text());
    } else if (kind < 4) {
      bytes.i32(kind == 2 ? 1 : 9).i32(static_cast<int>(m_choices.below(3)));
    } else if (kind < 6) {
      bytes.i32(with_longs ? 6 : 1).append(with_longs ? Bytes().i64(n + 7) : Bytes().i32(8));
    } else {
      bytes.i32(kind == 6 ? -1 : 2);
    }
  }
  return Bytes().i32(static_cast<int>(count)).append(bytes);
}

Bytes World::damaged(Bytes message) {
  if (message.size() == 0 || !m_choices.one_in(6)) return message;
  return message.cut(1 + m_choices.below(static_cast<unsigned>(std::min<std::size_t>(message.size(), 200))));
}

Bytes World::some_notification(int service, unsigned code) {
  const Bytes header = Bytes().i32(0).i32(-1).i32(3).utf16("any.IReceiver");
  if (service == kDirectives) return some_texts(7, 7);
  if (service == kConnectivity) return {};
  if (service == kEvents) {
    const int mark = m_choices.one_in(8) ? 0 : 1;
    return Bytes(header).i32(mark).i32(static_cast<int>(m_choices.below(9)) - 1);
  }
  if (code == 34) return Bytes(header).append(some_texts(2, 2));
  static constexpr std::array<const char*, 6> kData = {"package:a.b", "", "package:", "xyz", "see package:c\nd", "x"};
  Bytes intent = Bytes(header).i32(m_choices.one_in(16) ? 0 : 1).i32(4).utf16(some_text()).utf16(m_choices.of(kData));
  intent.utf16("").null();
  intent.i32(m_choices.one_in(4) ? 1 : 0);
  if (m_choices.one_in(8)) intent.utf16("p").utf16("c");
  return intent.i32(1).append(some_entries(true));
}

Bytes World::answer_to(int service, unsigned code) {
  static constexpr std::array<int, 6> kNumbers = {1, 0, 2, -1, 3, 100};
  const auto number = [this] { return m_choices.of(kNumbers); };
  const auto mark = [this] { return m_choices.one_in(12) ? 0 : 1; };
  if (service == kPackages) return some_texts(0, 4);
  if (service == kActivities) {
    const int count = static_cast<int>(m_choices.below(4));
    Bytes processes = Bytes().i32(m_choices.one_in(8) ? count + 1 : count);
    for (int n = 0; n < count; ++n) {
      processes.i32(mark()).utf16(some_text()).i32(1).i32(2).append(some_texts(0, 3)).i32(3).i32(4);
      processes.i32(m_choices.one_in(2) ? 125 : 100).i32(6).i32(7).i32(8);
      processes.utf16(some_text()).utf16("class").i32(9).i32(10).i32(number()).i64(11);
    }
    return processes;
  }
  if (service != kDelegate) return Bytes().i32(number());
  switch (code) {
    case 14:
      return Bytes().i32(mark()).append(some_texts(10, 10));
    case 15:
    case 17:
    case 18:
    case 32:
    case 33:
    case 42:
    case 55:
      return some_texts(1, 1);
    case 21:
      return some_texts(0, 4);
    case 26:
      return Bytes().i32(number());
    case 53: {
      Bytes info = Bytes().i32(mark()).i32(mark()).append(some_texts(9, 9));
      for (int list = 0; list < 3; ++list) info.append(some_texts(0, 2));
      for (int each = 0; each < 10; ++each) info.i32(number());
      return info.append(some_texts(3, 3)).i32(1).i32(mark()).i32(77).append(some_entries(false));
    }
    case 54:
      return Bytes().i32(mark()).i32(mark()).utf16("p").i32(number()).append(some_texts(1, 1)).i64(1).i64(2).i32(0);
    case 59: {
      const int count = static_cast<int>(m_choices.below(4));
      Bytes receivers = Bytes().i32(m_choices.one_in(8) ? count + 1 : count);
      for (int n = 0; n < count; ++n) {
        receivers.i32(mark()).i32(1).i32(mark()).i32(1).append(some_texts(2, 2)).i32(1).i32(2).i32(3).i32(4);
      }
      return receivers;
    }
    case 60:
      return Bytes().i32(mark()).i32(1).append(some_texts(4, 4)).i32(1).utf16("p").utf16("c").i32(0);
    default:
      return {};
  }
}

Reply World::answer(int service, const Transaction& call) {
  Event request{Kind::kRequest, service, static_cast<int>(call.code), {}, call.request};
  if (!call.transfers.empty()) {
    request.transfer = static_cast<int>(m_sent.size());
    m_sent.push_back({call.transfers.front(), service, call.code});
  }
  record(std::move(request));
  if (m_choices.one_in(32)) kill(service);
  disturb(During::kCall);
  Reply reply;
  switch (m_choices.below(24)) {
    case 20:
      reply.bytes = damaged(Bytes().i32(-3).utf16("no").i32(m_choices.one_in(2) ? 1 : 0).utf16("trace"));
      break;
    case 21:
      break;  // nothing at all
    case 22:
      reply.result = -EIO;
      break;
    default:
      reply.bytes = damaged(Bytes().i32(0).append(answer_to(service, call.code)));
  }
  record({Kind::kReply, reply.result, 0, {}, reply.bytes});
  return reply;
}

// ---- Calls ----

Call World::some_call() {
  Call call{static_cast<Method>(m_choices.below(kMethodCount)), {}};
  // Without subscriptions nothing is heard or lost, so they come more often.
  if (m_choices.one_in(3)) {
    static constexpr std::array<Method, 10> kSubscriptions = {k_registerForDeviceNameChange,
                                                              k_registerForDeviceRegistrationChange,
                                                              k_registerForMaroConnectivityChange,
                                                              k_registerForScreenStateChange,
                                                              k_registerForPackageAction,
                                                              k_registerForTimeSync,
                                                              k_registerForSecureSettingIntChange,
                                                              k_registerForDirective,
                                                              k_sendEvent,
                                                              k_registerForNetworkConnectivityChange};
    call.method = m_choices.of(kSubscriptions);
  }
  if (call.method == k_shutdown && !m_choices.one_in(3)) call.method = k_getDeviceName;
  for (std::string& text : call.texts) text = some_text();
  call.number = static_cast<int>(m_choices.below(10));
  call.flags = (1LL << 33U) + m_choices.below(3);
  call.null = m_choices.one_in(16);
  return call;
}

void World::call() {
  const int index = static_cast<int>(m_trace.calls.size());
  m_trace.calls.push_back(some_call());
  if (!m_choices.one_in(24)) m_trace.calls.back().callback = index;
  record({Kind::kCall, index});
  const Call call = m_trace.calls.back();
  record({Kind::kReturn, 0, 0, perform(call)});
}

std::string World::perform(const Call& call) {
  const auto& [first, second, third] = call.texts;
  const int number = call.number;
  const auto hear = [this, id = call.callback, alive = m_callbacks] {
    return [this, id, alive](bool state) { heard(id, shown(state)); };
  };
  // An empty one for no callback.
  const auto state_callback = [&]() -> std::function<void(bool)> {
    return call.callback == kNoCallback ? nullptr : std::function<void(bool)>(hear());
  };
  const OrvelIntent intent = intent_of(call);
  const OrvelIntent* const given = call.null ? nullptr : &intent;
  OrvelDelegateClient& it = client();
  switch (call.method) {
    case k_initialize: {
      const bool nested = m_running;
      m_starting = !nested;
      const bool initialized = it.initialize();
      m_starting = false;
      if (!nested) m_running = initialized;
      return shown(initialized);
    }
    case k_shutdown:
      it.shutdown();
      if (m_depth == 0) m_running = false;
      return "";
    case k_isMaroConnected:
      return shown(it.isMaroConnected());
    case k_isNetworkConnected:
      return shown(it.isNetworkConnected());
    case k_getDeviceName:
      return shown(it.getDeviceName());
    case k_getDeviceSerialNumber:
      return shown(it.getDeviceSerialNumber());
    case k_getDeviceType:
      return shown(it.getDeviceType());
    case k_getCustomerDirectedID:
      return shown(it.getCustomerDirectedID());
    case k_getCountryOfResidence:
      return shown(it.getCountryOfResidence());
    case k_getPreferredMarketPlace:
      return shown(it.getPreferredMarketPlace());
    case k_getSecureSettingInt:
      try {
        return std::to_string(it.getSecureSettingInt(first, number));
      } catch (const std::invalid_argument&) {
        return "throws invalid_argument";
      } catch (const std::out_of_range&) {
        return "throws out_of_range";
      }
    case k_isDeviceRegistered:
      return shown(it.isDeviceRegistered());
    case k_isScreenOn:
      return shown(it.isScreenOn());
    case k_acquirePartialWakeLock:
      return shown(it.acquirePartialWakeLock());
    case k_acquireFullWakeLock:
      return shown(it.acquireFullWakeLock());
    case k_registerForDeviceNameChange: {
      std::function<void(std::string)> callback;
      if (call.callback != kNoCallback)
        callback = [this, id = call.callback, alive = m_callbacks](const std::string& name) { heard(id, shown(name)); };
      return shown(it.registerForDeviceNameChange(callback));
    }
    case k_registerForDeviceRegistrationChange:
      return shown(it.registerForDeviceRegistrationChange(state_callback()));
    case k_registerForMaroConnectivityChange:
      return shown(it.registerForMaroConnectivityChange(state_callback()));
    case k_registerForNetworkConnectivityChange:
      return shown(it.registerForNetworkConnectivityChange(state_callback()));
    case k_unregisterForNetworkConnectivityChange:
      return shown(it.unregisterForNetworkConnectivityChange());
    case k_registerForScreenStateChange:
      return shown(it.registerForScreenStateChange(state_callback()));
    case k_registerForPackageAction: {
      std::function<void(std::string, std::string)> callback;
      if (call.callback != kNoCallback) {
        callback = [this, id = call.callback, alive = m_callbacks](const std::string& action,
                                                                   const std::string& package) {
          heard(id, shown(action) + ", " + shown(package));
        };
      }
      return shown(it.registerForPackageAction(first, {second}, {third, "s"}, callback));
    }
    case k_registerForTimeSync: {
      std::function<void(long long, long long)> callback;
      if (call.callback != kNoCallback) {
        callback = [this, id = call.callback, alive = m_callbacks](long long before, long long after) {
          heard(id, std::to_string(before) + ", " + std::to_string(after));
        };
      }
      return shown(it.registerForTimeSync(callback));
    }
    case k_registerForSecureSettingIntChange: {
      std::function<void(int)> callback;
      if (call.callback != kNoCallback)
        callback = [this, id = call.callback, alive = m_callbacks](int value) { heard(id, std::to_string(value)); };
      return shown(it.registerForSecureSettingIntChange(first, number, callback));
    }
    case k_broadcastIntentWithIntKey:
      return shown(it.broadcastIntentWithIntKey(first, second, third, "key", number));
    case k_broadcastIntent:
      return shown(it.broadcastIntent(given));
    case k_broadcastIntentWithPermission:
      return shown(it.broadcastIntentWithPermission(given, second));
    case k_startActivity:
      return shown(it.startActivity(given));
    case k_startForegroundService:
      return shown(it.startForegroundService(given));
    case k_startService:
      return shown(it.startService(given));
    case k_launchApplicationWithPackageName:
      return shown(it.launchApplicationWithPackageName(first));
    case k_getApplicationInfoMetaDataInt:
      return std::to_string(it.getApplicationInfoMetaData(first, call.flags, "x", number));
    case k_getApplicationInfoMetaDataText:
      return shown(it.getApplicationInfoMetaData(first, call.flags, "x", second));
    case k_getPackageVersionCode:
      return shown(it.getPackageVersionCode(first, call.flags));
    case k_getPackageVersionName:
      return shown(it.getPackageVersionName(first, call.flags));
    case k_getRawResourceAsString:
      return shown(it.getRawResourceAsString(first, number));
    case k_hasSystemFeature:
      return shown(it.hasSystemFeature(first));
    case k_getPackageNamesForUid:
      return shown(it.getPackageNamesForUid(number));
    case k_getBroadcastReceiverPackageNames:
      return shown(it.getBroadcastReceiverPackageNames(first, call.flags));
    case k_getInstalledPackageNames: {
      std::vector<std::string> names = {"old"};
      const bool known = it.getInstalledPackageNames(names);
      return shown(known) + " " + shown(names);
    }
    case k_getForegroundPackages: {
      std::vector<std::string> names = {"old"};
      const bool known = it.getForegroundPackages(names);
      return shown(known) + " " + shown(names);
    }
    case k_getAppProcessState: {
      bool found = true;
      bool focused = true;
      int importance = 77;
      const bool known = it.getAppProcessState(first, found, importance, focused);
      return shown(known) + " " + shown(found) + " " + std::to_string(importance) + " " + shown(focused);
    }
    case k_sendEvent: {
      OrvelDelegateClient::EventResultCallback callback;
      if (call.callback != kNoCallback) {
        callback = [this, id = call.callback, alive = m_callbacks](const std::string& result, bool retryable) {
          heard(id, shown(result) + ", " + shown(retryable));
        };
      }
      return shown(it.sendEvent(first, second, third, "", "5", "", "7", number % 2 != 0, second, callback));
    }
    case k_registerForDirective: {
      OrvelDelegateClient::DirectiveCallback callback;
      if (call.callback != kNoCallback) {
        callback = [this, id = call.callback, alive = m_callbacks](const std::string& one, const std::string& two,
                                                                   const std::string& three, const std::string& four,
                                                                   const std::string& five, const std::string& six,
                                                                   const std::string& seven) {
          heard(id, shown(std::vector<std::string>{one, two, three, four, five, six, seven}));
        };
      }
      return shown(it.registerForDirective(first, callback));
    }
    case k_recordTarselMetricEvent: {
      TarselMetricEvent event;
      fill(event, call);
      it.recordTarselMetricEvent(call.null ? nullptr : &event);
      return "";
    }
    case kMethodCount:
      break;
  }
  throw std::logic_error("no such method");
}

}  // namespace orvel::fuzz
