#include "orvel/testing/TestDevice.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "Device.h"
#include "Records.h"
#include "device/Acts.h"
#include "device/EventResults.h"
#include "device/Scenario.h"
#include "device/ShippedScenarios.h"

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

Json readScenario(const std::string& scenario) {
  if (is_json(scenario)) return sim::readScenario(scenario, "the scenario");
  return sim::scenarioCalled(scenario);
}

Json readObject(const std::string& text) {
  Json value = Json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (!value.is_object()) throw std::invalid_argument("expected a JSON object, not '" + text + "'");
  return value;
}

void expectOneOf(const std::string& act, std::initializer_list<const char*> acts) {
  if (std::find(acts.begin(), acts.end(), act) != acts.end()) return;
  std::string known;
  for (const char* each : acts) known += (known.empty() ? "" : ", ") + std::string(each);
  throw std::invalid_argument("'" + act + "' is none of " + known);
}

}  // namespace

TestDevice::TestDevice(const std::string& scenario) {
  try {
    m_device = std::make_unique<Device>(readScenario(scenario));
  } catch (const sim::ScenarioError& refused) {
    throw std::invalid_argument(refused.what());
  }
}

TestDevice::~TestDevice() = default;

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
  if (vesk::inprocess::InprocessVesk::on_run_loop())
    throw std::logic_error("TestDevice::settle in a callback, which it would wait for");
  return m_device->time().settle(kNoEnd);
}

void TestDevice::advance(std::chrono::nanoseconds duration) {
  if (vesk::inprocess::InprocessVesk::on_run_loop())
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
    sortByBeginning(calls);
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
      told.push_back(notificationIn(entry, m_device->thrownAt(entry)));
    }
    sortByBeginning(told);
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
