#include "orvel/testing/TestDevice.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <functional>
#include <future>
#include <iostream>
#include <map>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <utility>

#include "DeviceTransport.h"
#include "VirtualTime.h"
#include "orvel/OrvelDelegateClient.h"
#include "sim/Acts.h"
#include "sim/EventResults.h"
#include "sim/Scenario.h"
#include "sim/Service.h"
#include "sim/ShippedScenarios.h"

namespace orvel::testing {
namespace {

using sim::Json;
using sim::ServiceType;

// Longer than any rebind, and than any series of them that a test makes.
constexpr std::chrono::hours kNoEnd(1);

constexpr std::string_view kDirectivePrefix = "sim_broker_service_";
constexpr std::string_view kDirectiveSuffix = "_vesk_endpoint";

bool is_json(const std::string& text) {
  return text.find_first_not_of(" \t\r\n") == text.find('{') && text.find('{') != std::string::npos;
}

Json readObject(const std::string& text) {
  Json value = Json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (!value.is_object()) throw std::invalid_argument("expected a JSON object, not '" + text + "'");
  return value;
}

std::string textIn(const Json& value) {
  return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

void expectOneOf(const std::string& act, std::initializer_list<const char*> acts) {
  if (std::find(acts.begin(), acts.end(), act) != acts.end()) return;
  std::string known;
  for (const char* each : acts) known += (known.empty() ? "" : ", ") + std::string(each);
  throw std::invalid_argument("'" + act + "' is none of " + known);
}

// What came in place of a whole reply.
std::string failureIn(const Json& entry) {
  if (const auto thrown = entry.find("exception"); thrown != entry.end()) {
    return "exception " + thrown->at("code").dump() + ": " + thrown->at("message").get<std::string>();
  }
  if (const auto error = entry.find("error"); error != entry.end()) return "error " + error->dump();
  if (const auto size = entry.find("truncatedTo"); size != entry.end()) return "cut to " + size->dump() + " bytes";
  if (entry.contains("hangs")) return "hangs";
  return entry.contains("drops") ? "drops" : "";
}

// The name of a method, or of none that the service has.
std::string nameIn(const Json& entry, const char* key) {
  const Json& name = entry.at(key);
  return name.is_null() ? "transaction " + entry.at("code").dump() : name.get<std::string>();
}

Call callIn(const Json& entry) {
  const std::chrono::duration<double, std::milli> duration(entry.value("durationMs", 0.0));
  return {entry.at("service"),
          nameIn(entry, "method"),
          textIn(entry.at("arguments")),
          entry.contains("reply") ? textIn(entry.at("reply")) : "",
          failureIn(entry),
          std::chrono::duration_cast<std::chrono::nanoseconds>(duration)};
}

Json readScenario(const std::string& scenario) {
  if (is_json(scenario)) return sim::readScenario(scenario, "the scenario");
  return sim::scenarioCalled(scenario);
}

// Without a device there is nothing for a client to initialise, as on a workstation. Kept for good.
bool takeDeviceAway() {
  static auto& none = *new test::FakeVesk;
  none.fail_always("vesk_get_runtime", 1, -ENOENT);
  return true;
}
[[maybe_unused]] const bool g_no_device_yet = takeDeviceAway();

// Comes before the host that has its runtime.
struct Transport {
  test::FakeVesk vesk;
  DeviceTransport device{vesk};
};

}  // namespace

// The host of the services. What is not said to run on the test's thread runs on the device's.
class TestDevice::Device : private Transport, public sim::Host {
 public:
  // Test's thread, like do_() and the destructor.
  explicit Device(const std::string& scenario)
      : Host(Transport::device.runtime()),
        m_scenario(readScenario(scenario)),
        m_thread([this] { m_time.run_device(); }) {
    perform([this] {
      for (const ServiceType* type : sim::allServices()) {
        if (isAlive(*type)) start(*type);
        armFlap(*type);
      }
    });
  }

  ~Device() override {
    service_apis::OrvelDelegateClient::getClient().shutdown();
    perform([this] {
      for (const auto& [type, timer] : m_flaps) m_time.stop_timer(timer);
      m_services.clear();
      deliveries().stop();
    });
    m_time.stop_device();
    m_thread.join();
  }
  Device(const Device&) = delete;
  Device& operator=(const Device&) = delete;

  // Runs `task` on the device's thread and gives what it gives. Any other thread.
  template <typename Task>
  auto perform(Task task) -> decltype(task()) {
    // Shared: the one who waits may be gone before the one who answers has left it.
    const auto done = std::make_shared<std::promise<decltype(task())>>();
    m_time.post([&task, done] {
      try {
        if constexpr (std::is_void_v<decltype(task())>) {
          task();
          done->set_value();
        } else {
          done->set_value(task());
        }
      } catch (...) {
        done->set_exception(std::current_exception());
      }
    });
    try {
      return done->get_future().get();
    } catch (const std::exception& refused) {
      throw std::invalid_argument(refused.what());
    }
  }

  VirtualTime& time() { return m_time; }
  [[nodiscard]] VirtualTime::Duration elapsed() const { return m_time.now() - m_start; }

  const Json& scenario() const override { return m_scenario; }
  void change(const Json& change) override { become(sim::changed(m_scenario, change)); }
  void record(Json entry) override { m_traffic.push_back(std::move(entry)); }
  void recordSoon(Json entry) override { record(std::move(entry)); }

  const std::vector<Json>& traffic() const { return m_traffic; }
  std::vector<std::string> publishedNames() const { return vesk.published(); }

  Json tell(const char* id, const Json& event) {
    const ServiceType& type = sim::serviceCalled(id);
    const auto service = m_services.find(&type);
    if (service == m_services.end()) throw std::runtime_error(type.id + " is dead");
    return service->second->event(event);
  }

  void kill(const ServiceType& type) {
    if (m_services.count(&type) == 0 && !m_scenario.at(type.id).contains(sim::kFlap)) {
      throw std::runtime_error(type.id + " is dead already");
    }
    decree(type, false);
  }

  void restart(const ServiceType& type) {
    if (isAlive(type)) decree(type, false);
    decree(type, true);
  }

 private:
  bool isAlive(const ServiceType& type) const { return m_scenario.at(type.id).at(sim::kAlive); }

  void decree(const ServiceType& type, bool alive) {
    Json scenario = m_scenario;
    sim::liveFromNowOn(scenario.at(type.id), alive);
    become(std::move(scenario));
  }

  void become(Json scenario) {
    const Json before = std::exchange(m_scenario, std::move(scenario));
    for (const auto& [type, service] : m_services) service->changed(before);
    for (const ServiceType* type : sim::allServices()) {
      const Json& was = before.at(type->id);
      const Json& is = m_scenario.at(type->id);
      if (was.value(sim::kFlap, Json()) != is.value(sim::kFlap, Json())) armFlap(*type);
      if (was.at(sim::kAlive) == is.at(sim::kAlive)) continue;
      if (isAlive(*type)) {
        start(*type);
      } else {
        m_services.erase(type);
      }
    }
  }

  void start(const ServiceType& type) {
    auto service = type.make(type, *this);
    service->publish();
    m_services[&type] = std::move(service);
  }

  void armFlap(const ServiceType& type) {
    if (const auto armed = m_flaps.extract(&type)) m_time.stop_timer(armed.mapped());
    const Json& section = m_scenario.at(type.id);
    const auto interval = sim::flapInterval(section);
    if (!interval) return;
    const bool endless = !section.at(sim::kFlap).contains("count");
    m_flaps[&type] = m_time.start_timer(
        *interval, [this, &type] { flap(type); }, endless);
  }

  void flap(const ServiceType& type) {
    Json scenario = m_scenario;
    sim::flapOnce(scenario.at(type.id));
    become(std::move(scenario));
    armFlap(type);
  }

  VirtualTime& m_time = VirtualTime::instance();
  const VirtualTime::TimePoint m_start = m_time.now();
  Json m_scenario;
  std::vector<Json> m_traffic;
  std::map<const ServiceType*, std::unique_ptr<sim::Service>> m_services;  // those that live
  std::map<const ServiceType*, VirtualTime::TimerId> m_flaps;
  std::thread m_thread;
};

TestDevice::TestDevice(const std::string& scenario) {
  try {
    m_device = std::make_unique<Device>(scenario);
  } catch (const sim::ScenarioError& refused) {
    takeDeviceAway();
    throw std::invalid_argument(refused.what());
  }
}

TestDevice::~TestDevice() {
  m_device.reset();
  takeDeviceAway();
}

// ---- What the device knows ----

void TestDevice::set(const Words& words, const std::string& value) {
  m_device->perform([&] { m_device->change(sim::changeOf(words.list(), value)); });
}

void TestDevice::unset(const Words& words) {
  m_device->perform([&] { m_device->change(sim::changeOf(words.list(), std::nullopt)); });
}

std::string TestDevice::get(const Words& words) const {
  return m_device->perform([&] {
    const std::optional<Json> value = sim::valueIn(m_device->scenario(), words.list());
    if (!value) return std::string();
    return value->is_string() ? value->get<std::string>() : textIn(*value);
  });
}

void TestDevice::screen(bool on) {
  set({"power", "screenOn"}, on ? "true" : "false");
}

void TestDevice::package(const std::string& act, const std::string& name, const std::string& values) {
  expectOneOf(act, {"install", "replace", "remove"});
  m_device->perform([&] { m_device->change(sim::makeAct(act.c_str(), name, readObject(values))); });
}

void TestDevice::process(const std::string& act, const std::string& name, const std::string& values) {
  expectOneOf(act, {"start", "stop", "foreground"});
  m_device->perform([&] { m_device->change(sim::makeAct(act.c_str(), name, readObject(values))); });
}

// ---- What happens ----

int TestDevice::broadcast(const std::string& intent) {
  const Json sent = is_json(intent) ? readObject(intent) : Json{{"action", intent}};
  return m_device->perform([&] { return m_device->tell("delegate", sent).at("receivers").get<int>(); });
}

void TestDevice::directive(const std::string& nspace, std::vector<std::string> texts) {
  constexpr std::size_t kTexts = 7;
  if (texts.size() > kTexts) {
    throw std::invalid_argument("a directive has seven texts; '" + texts[kTexts] + "' is one too many");
  }
  texts.resize(kTexts);
  m_device->perform([&] { m_device->tell("coordinator", {{"namespace", nspace}, {"texts", texts}}); });
}

void TestDevice::eventResult(const std::string& result, std::chrono::milliseconds delay) {
  m_device->perform([&] {
    const Json values = {{"reply", 1},
                         {"result", sim::eventResultCalled(result)},
                         {"resultDelayMs", delay.count()},
                         {"resultMode", "after"}};
    m_device->change(sim::makeAct("set", "events", values));
  });
}

// ---- What goes wrong ----

namespace {

// A fault as a change of the scenario.
Json fault(const std::string& service, const std::string& method, const char* kind, const Json& value) {
  const ServiceType& type = sim::serviceCalled(service);
  const std::string where = method == kEveryMethod ? method : sim::methodCalled(type, method).name;
  Json change = sim::changeOf({type.id, sim::kFaults, where, kind}, std::nullopt);
  change["value"] = value;
  return change;
}

}  // namespace

void TestDevice::kill(const std::string& service) {
  m_device->perform([&] { m_device->kill(sim::serviceCalled(service)); });
}

void TestDevice::restart(const std::string& service) {
  m_device->perform([&] { m_device->restart(sim::serviceCalled(service)); });
}

void TestDevice::hang(const std::string& service, const std::string& method) {
  m_device->perform([&] { m_device->change(fault(service, method, "hang", true)); });
}

void TestDevice::delay(const std::string& service, std::chrono::milliseconds by, const std::string& method) {
  m_device->perform([&] { m_device->change(fault(service, method, "delayMs", by.count())); });
}

void TestDevice::exception(const std::string& service, const std::string& method) {
  m_device->perform([&] { m_device->change(fault(service, method, "exception", Json::object())); });
}

void TestDevice::error(const std::string& service, int code, const std::string& method) {
  m_device->perform([&] { m_device->change(fault(service, method, "error", code)); });
}

void TestDevice::truncate(const std::string& service, unsigned bytes, const std::string& method) {
  m_device->perform([&] { m_device->change(fault(service, method, "truncateTo", bytes)); });
}

void TestDevice::drop(const std::string& service, const std::string& method, int calls) {
  m_device->perform([&] { m_device->change(fault(service, method, "drop", calls == 0 ? Json(true) : Json(calls))); });
}

void TestDevice::flap(const std::string& service, std::chrono::milliseconds period, int times) {
  m_device->perform([&] {
    Json values = {{"periodMs", period.count()}};
    if (times != 0) values["count"] = times;
    m_device->change(sim::makeAct("flap", sim::serviceCalled(service).id, values));
  });
}

void TestDevice::repair(const std::string& service) {
  m_device->perform([&] {
    const ServiceType& type = sim::serviceCalled(service);
    m_device->change({{"path", "/" + type.id + "/" + sim::kFaults}, {"value", Json::object()}});
    m_device->change(sim::makeAct("flap", type.id));
  });
}

// ---- Time ----

bool TestDevice::settle() {
  if (test::FakeVesk::on_run_loop())
    throw std::logic_error("TestDevice::settle in a callback, which it would wait for");
  return m_device->time().settle(kNoEnd);
}

void TestDevice::advance(std::chrono::nanoseconds duration) {
  if (test::FakeVesk::on_run_loop())
    throw std::logic_error("TestDevice::advance in a callback, which it would wait for");
  m_device->time().advance(duration);
}

std::chrono::nanoseconds TestDevice::elapsed() const {
  return m_device->elapsed();
}

// ---- What the client did ----

std::vector<Call> TestDevice::calls() const {
  return m_device->perform([&] {
    std::vector<Call> calls;
    for (const Json& entry : m_device->traffic()) {
      if (entry.contains("method")) calls.push_back(callIn(entry));
    }
    return calls;
  });
}

std::vector<Call> TestDevice::calls(const std::string& service, const std::string& method) const {
  m_device->perform([&] { sim::methodCalled(sim::serviceCalled(service), method); });
  std::vector<Call> chosen = calls();
  const auto other = [&](const Call& call) { return call.service != service || call.method != method; };
  chosen.erase(std::remove_if(chosen.begin(), chosen.end(), other), chosen.end());
  return chosen;
}

std::vector<Notification> TestDevice::notifications() const {
  return m_device->perform([&] {
    std::vector<Notification> told;
    for (const Json& entry : m_device->traffic()) {
      if (!entry.contains("notification")) continue;
      told.push_back(
          {entry.at("service"), nameIn(entry, "notification"), textIn(entry.at("arguments")), failureIn(entry)});
    }
    return told;
  });
}

std::vector<Registration> TestDevice::registrations() const {
  return m_device->perform([&] {
    std::vector<Registration> held;
    for (const Json& entry : m_device->traffic()) {
      if (!entry.contains("endpoints")) continue;
      const Json& brought = entry.at("endpoints");
      const auto isKept = [](const Json& number) { return sim::isKept(number.get<std::uint64_t>()); };
      if (!std::all_of(brought.begin(), brought.end(), isKept)) continue;
      held.push_back({entry.at("service"), nameIn(entry, "method"), textIn(entry.at("arguments"))});
    }
    for (const std::string& name : m_device->publishedNames()) {
      if (name.rfind(kDirectivePrefix, 0) != 0) continue;
      const std::size_t length = name.size() - kDirectivePrefix.size() - kDirectiveSuffix.size();
      const Json arguments = {{"namespace", name.substr(kDirectivePrefix.size(), length)}};
      held.push_back({"coordinator", "directive", textIn(arguments)});
    }
    return held;
  });
}

}  // namespace orvel::testing
