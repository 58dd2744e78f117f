#include "orvel/testing/TestDevice.h"

#include <algorithm>
#include <cstdint>
#include <exception>
#include <optional>
#include <stdexcept>
#include <vector>

#include "LocalDevice.h"
#include "Records.h"
#include "binder/Process.h"
#include "device/Acts.h"
#include "device/EventResults.h"
#include "device/Scenario.h"
#include "device/ServiceNames.h"
#include "device/ShippedScenarios.h"

namespace orvel::testing {
namespace {

using sim::Json;
using sim::ServiceType;

// Longer than any rebind, and than any series of them that a test makes.
constexpr std::chrono::hours kNoEnd(1);

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

// The changes of the device, made of the arguments of its methods.

using Acts = std::vector<std::string>;

Json readAct(const std::string& act, const Acts& acts, const std::string& name, const std::string& values) {
  if (std::find(acts.begin(), acts.end(), act) == acts.end()) {
    throw std::invalid_argument("'" + act + "' is none of " + sim::joined(acts));
  }
  return sim::makeAct(act.c_str(), name, readObject(values));
}

Json resultChange(const std::string& result, std::chrono::milliseconds delay) {
  const Json values = {{"reply", 1},
                       {"result", sim::eventResultCalled(result)},
                       {"resultDelayMs", delay.count()},
                       {"resultMode", "after"}};
  return sim::makeAct("set", "events", values);
}

Json faultChange(const std::string& service, const std::string& method, const char* kind, const Json& value) {
  const ServiceType& type = sim::serviceCalled(service);
  const std::string where = method == kEveryMethod ? method : sim::methodCalled(type, method).name;
  Json change = sim::changeOf({type.id, sim::kFaults, where, kind}, std::nullopt);
  change["value"] = value;
  return change;
}

Json noFaults(const std::string& service) {
  return {{"path", "/" + sim::serviceCalled(service).id + "/" + sim::kFaults}, {"value", Json::object()}};
}

Json flapChange(const std::string& service, const Json& values) {
  return sim::makeAct("flap", sim::serviceCalled(service).id, values);
}

// The thread that lets time pass must be none that this would wait for.
void refuseToWait(const std::string& method) {
  const bool in_callback = vesk::inprocess::InprocessVesk::on_run_loop() || service_apis::on_library_thread();
  if (!in_callback && !VirtualTime::in_act()) return;
  throw std::logic_error("TestDevice::" + method + (in_callback ? " in a callback" : " in an act") +
                         ", which it would wait for");
}

void throwWhatActsThrew(VirtualTime& time) {
  if (const std::exception_ptr thrown = time.take_thrown()) std::rethrow_exception(thrown);
}

}  // namespace

TestDevice::TestDevice(const std::string& scenario) {
  try {
    m_device = std::make_unique<LocalDevice>(readScenario(scenario));
  } catch (const sim::ScenarioError& refused) {
    throw std::invalid_argument(refused.what());
  }
}

TestDevice::~TestDevice() = default;

// ---- What the device knows ----

void TestDevice::set(const Words& words, const std::string& value) {
  m_device->change_to(sim::changeOf, words.list(), value);
}

void TestDevice::unset(const Words& words) {
  m_device->change_to(sim::changeOf, words.list(), std::nullopt);
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
  m_device->change_to(readAct, act, Acts{"install", "replace", "remove"}, name, values);
}

void TestDevice::process(const std::string& act, const std::string& name, const std::string& values) {
  m_device->change_to(readAct, act, Acts{"start", "stop", "foreground"}, name, values);
}

// ---- What happens ----

int TestDevice::broadcast(const std::string& intent) {
  const Json sent = is_json(intent) ? readObject(intent) : Json{{"action", intent}};
  return m_device->on_device(&LocalDevice::notify, "delegate", sent).at("receivers").get<int>();
}

void TestDevice::directive(const std::string& nspace, std::vector<std::string> texts) {
  constexpr std::size_t kTexts = 7;
  if (texts.size() > kTexts) {
    throw std::invalid_argument("a directive has seven texts; '" + texts[kTexts] + "' is one too many");
  }
  texts.resize(kTexts);
  m_device->on_device(&LocalDevice::notify, "coordinator", Json{{"namespace", nspace}, {"texts", texts}});
}

void TestDevice::eventResult(const std::string& result, std::chrono::milliseconds delay) {
  m_device->change_to(resultChange, result, delay);
}

// ---- What goes wrong ----

void TestDevice::kill(const std::string& service) {
  m_device->on_device(&LocalDevice::apply, &sim::Device::kill, service);
}

void TestDevice::restart(const std::string& service) {
  m_device->on_device(&LocalDevice::apply, &sim::Device::restart, service);
}

void TestDevice::hang(const std::string& service, const std::string& method) {
  m_device->change_to(faultChange, service, method, "hang", true);
}

void TestDevice::delay(const std::string& service, std::chrono::milliseconds by, const std::string& method) {
  m_device->change_to(faultChange, service, method, "delayMs", by.count());
}

void TestDevice::exception(const std::string& service, const std::string& method) {
  m_device->change_to(faultChange, service, method, "exception", Json::object());
}

void TestDevice::error(const std::string& service, int code, const std::string& method) {
  m_device->change_to(faultChange, service, method, "error", code);
}

void TestDevice::truncate(const std::string& service, unsigned bytes, const std::string& method) {
  m_device->change_to(faultChange, service, method, "truncateTo", bytes);
}

void TestDevice::drop(const std::string& service, const std::string& method, int calls) {
  m_device->change_to(faultChange, service, method, "drop", calls == 0 ? Json(true) : Json(calls));
}

void TestDevice::flap(const std::string& service, std::chrono::milliseconds period, int times) {
  Json values = {{"periodMs", period.count()}};
  if (times != 0) values["count"] = times;
  m_device->change_to(flapChange, service, values);
}

void TestDevice::repair(const std::string& service) {
  m_device->change_to(noFaults, service);
  m_device->change_to(flapChange, service, Json::object());
}

void TestDevice::holdNamespace(const std::string& nspace) {
  m_device->on_device(&LocalDevice::holdNamespace, nspace);
}

void TestDevice::releaseNamespace(const std::string& nspace) {
  m_device->on_device(&LocalDevice::releaseNamespace, nspace);
}

// ---- Time ----

bool TestDevice::settle() {
  refuseToWait("settle");
  const bool settled = m_device->time().settle(kNoEnd);
  throwWhatActsThrew(m_device->time());
  return settled;
}

void TestDevice::advance(std::chrono::nanoseconds duration) {
  refuseToWait("advance");
  m_device->time().advance(duration);
  throwWhatActsThrew(m_device->time());
}

void TestDevice::at(std::chrono::nanoseconds time, std::function<void()> act) {
  if (!act) throw std::invalid_argument("TestDevice::at: the act is empty");
  m_device->actAt(time, std::move(act));
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
      const std::string nspace = sim::namespaceIn(name);
      if (!nspace.empty()) held.push_back({"coordinator", "directive", textIn({{"namespace", nspace}})});
    }
    return held;
  });
}

}  // namespace orvel::testing
