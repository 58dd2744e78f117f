#include "device/Service.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "device/Acts.h"
#include "device/Traffic.h"

namespace orvel::sim {
namespace {

const Fault* faultCalled(const std::vector<Fault>& faults, const char* key) {
  const auto found =
      std::find_if(faults.begin(), faults.end(), [&](const Fault& fault) { return fault.kind->key == key; });
  return found == faults.end() ? nullptr : &*found;
}

// What a replay tells of a call is in the words of faults.
std::vector<Fault> faultsOfReplay(const Json& replayed) {
  std::vector<Fault> faults;
  for (const FaultKind& kind : faultKinds()) {
    const auto told = replayed.find(kind.key);
    if (told != replayed.end() && *told != false) faults.push_back({"", &kind, *told, {}});
  }
  return faults;
}

}  // namespace

const Method* methodWith(const ServiceType& type, unsigned code) {
  const auto found =
      std::find_if(type.methods.begin(), type.methods.end(), [&](const Method& method) { return method.code == code; });
  return found == type.methods.end() ? nullptr : &*found;
}

const ServiceType& serviceCalled(const std::string& id) {
  std::vector<std::string> known;
  for (const ServiceType* type : allServices()) {
    if (type->id == id || type->name == id) return *type;
    known.push_back(type->id);
  }
  throw ScenarioError("no service is called '" + id + "'; there are " + joined(known), id, known);
}

const Method& methodCalled(const ServiceType& type, const std::string& name) {
  std::vector<std::string> known;
  for (const Method& method : type.methods) {
    if (method.name == name) return method;
    known.push_back(method.name);
  }
  if (known.empty()) throw ScenarioError(type.id + " has no methods");
  throw ScenarioError("no method of " + type.id + " is called '" + name + "'; there are " + joined(known), name, known);
}

Method getter(unsigned code, const char* name, const char* field, void (*write)(vesk_payload*, const Json&)) {
  const auto handle = [field](const Service& service, const Call&) { return service.section().at(field); };
  return {code, name, {}, handle, write, field};
}

std::string describeMethods(const ServiceType& type) {
  std::string text;
  for (const Method& method : type.methods) {
    const std::string code = std::to_string(method.code);
    text += std::string(6 - std::min<std::size_t>(code.size(), 5), ' ') + code + "  " + method.name + "(";
    for (const Argument& argument : method.arguments) {
      text += (&argument == &method.arguments.front() ? "" : ", ") + argument.name;
    }
    text += ")\n";
  }
  return text;
}

Service::~Service() {
  if (m_published) vesk_service_withdraw(m_host.runtime(), m_type.name.c_str());
  for (const Late& late : m_late) vesk_deferred_answer(late.answer, -EPIPE, nullptr);
}

void Service::publish() {
  check(vesk_service_register(m_host.runtime(), m_type.name.c_str(), get()), m_type.name.c_str());
  m_published = true;
}

void Service::changed(const std::vector<Difference>& differences) {
  for (const Difference& difference : differences) {
    if (difference.section == m_type.id && difference.field == kFaults) {
      m_faultCounts.changed(difference.was, difference.is);
    }
    changed(difference);
  }
}

void Service::changed(const Difference&) {}

Json Service::event(const Json&) {
  throw std::runtime_error(m_type.id + " knows no events");
}

int Service::onCall(unsigned code, vesk_identity* caller, vesk_buffer* request, vesk_payload* reply) {
  Call call = decode(code, caller, request);
  call.replayed = m_host.replayed(m_type, call);
  if (call.replayed.is_null()) call.turns = m_faultCounts.turnsOf(section().at(kFaults), call);
  const std::vector<Fault> faults = faultsOf(call);
  const Fault* const hang = faultCalled(faults, "hang");
  const Fault* const late = faultCalled(faults, "delayMs");
  const std::chrono::milliseconds delay(late == nullptr ? 0 : late->value.get<std::int64_t>());
  if (hang == nullptr && faultCalled(faults, "drop") == nullptr && delay.count() == 0) return answer(call, reply);
  vesk_deferred* owed = vesk_request_defer(caller);
  if (owed == nullptr) return -ENOMEM;
  call.wasDelayed = delay.count() != 0 && hang == nullptr;
  const auto kept = m_late.insert(m_late.end(), {std::move(call), owed, nullptr});
  if (hang != nullptr) {
    record(kept->call, {{"hangs", true}}, {hang});
  } else if (delay.count() == 0) {
    answerLate(kept);
  } else {
    kept->timer = std::make_unique<Timer>(m_host.runtime(), delay, [this, kept] { answerLate(kept); });
  }
  return 0;
}

Call Service::decode(unsigned code, vesk_identity* caller, vesk_buffer* request) {
  Call call;
  call.method = methodWith(m_type, code);
  call.code = code;
  call.caller = vesk_identity_pid(caller);
  call.thread = vesk_identity_thread(caller);
  call.client = programOf(call.caller);
  call.arrival = Clock::now();
  call.moment = m_host.moment();
  std::string where;
  try {
    RequestReader reader(request);
    if (m_type.methods.empty()) throw RemoteException(kUnsupportedOperationException, m_type.name + " has no methods");
    where = ", header";
    reader.expectHeader(m_type.descriptor);
    if (call.method == nullptr) {
      throw RemoteException(kUnsupportedOperationException, m_type.descriptor + " has no such transaction");
    }
    for (const Argument& argument : call.method->arguments) {
      where = ", " + argument.name;
      call.arguments[argument.name] = argument.read(reader);
    }
    where = ", end";
    reader.expectEnd();
    call.endpoints = reader.takeEndpoints();
  } catch (const RemoteException& error) {
    const std::string method = call.method == nullptr ? "transaction " + std::to_string(code) : call.method->name;
    call.refusal.emplace(error.code, method + where + ": " + error.what());
  }
  return call;
}

std::vector<Fault> Service::faultsOf(const Call& call) const {
  return call.replayed.is_null() ? faultsFor(section().at(kFaults), call) : faultsOfReplay(call.replayed);
}

void Service::answerLate(std::list<Late>::iterator late) {
  const std::vector<Fault> faults = faultsOf(late->call);
  if (const Fault* drop = faultCalled(faults, "drop")) {
    hangUp(*late, *drop);
    m_late.erase(late);
    return;
  }
  const PayloadPtr reply(vesk_payload_alloc());
  const int error = reply ? answer(late->call, reply.get()) : -ENOMEM;
  vesk_deferred_answer(late->answer, error, reply.get());
  m_late.erase(late);
}

// To the caller it looks as if the service had died; other clients see nothing.
void Service::hangUp(const Late& late, const Fault& drop) {
  if (late.call.replayed.is_null()) countDrop(drop);
  record(late.call, {{"drops", true}, {"durationMs", millisecondsSince(late.call.arrival)}}, {&drop});
  vesk_deferred_hang_up(late.answer);
}

// What drops some calls only has one fewer left.
void Service::countDrop(const Fault& drop) {
  if (!drop.value.is_number()) return;
  Json values = {{"method", drop.method}, {"key", "drop"}};
  if (const auto left = drop.value.get<std::int64_t>() - 1; left > 0) {
    values["value"] = left;
    if (!drop.only.is_null()) values[kOnly] = drop.only;
  }
  m_host.change(makeAct("fault", m_type.id, values));
}

int Service::answer(const Call& call, vesk_payload* reply) {
  const std::vector<Fault> faults = faultsOf(call);
  std::vector<const Fault*> struck;
  const auto strike = [&](const char* key) {
    const Fault* const fault = faultCalled(faults, key);
    if (fault != nullptr) struck.push_back(fault);
    return fault;
  };
  if (call.wasDelayed) strike("delayMs");
  if (const Fault* error = strike("error")) {
    record(call, {{"error", error->value}, {"durationMs", millisecondsSince(call.arrival)}}, struck);
    return error->value;
  }
  Json outcome;
  try {
    if (call.refusal) throw RemoteException(*call.refusal);
    if (const Fault* told = strike("exception")) {
      throw RemoteException(told->value.at("code"), told->value.at("message"), told->value.at("trace"));
    }
    const bool isReplayed = !call.replayed.is_null() && call.replayed.contains("reply");
    const Json result = isReplayed ? call.replayed.at("reply") : call.method->handle(*this, call);
    vesk_write_i32(reply, 0);
    call.method->write(reply, result);
    outcome["reply"] = result;
  } catch (const RemoteException& exception) {
    writeException(reply, exception);
    outcome["exception"] = {{"code", exception.code}, {"message", exception.what()}};
    if (!exception.trace.empty()) outcome["exception"]["trace"] = exception.trace;
  }
  std::size_t size = 0;
  vesk_payload_data(reply, &size);
  if (const Fault* cut = faultCalled(faults, "truncateTo"); cut != nullptr && cut->value < size) {
    vesk_payload_truncate(reply, cut->value.get<std::size_t>());
    outcome["truncatedTo"] = cut->value;
    struck.push_back(cut);
  }
  outcome["durationMs"] = millisecondsSince(call.arrival);
  record(call, std::move(outcome), struck);
  return 0;
}

void Service::record(const Call& call, Json outcome, const std::vector<const Fault*>& struck) {
  const Json name = call.method == nullptr ? Json() : Json(call.method->name);
  Json entry = trafficEntry(m_type.id, "method", name, call.code, call.caller, call.arguments, call.moment);
  if (call.thread != 0) entry["thread"] = call.thread;
  for (const RemotePtr& endpoint : call.endpoints) entry["endpoints"].push_back(endpointNumber(endpoint));
  entry.update(outcome);
  for (const Fault* fault : struck) {
    if (call.replayed.is_null()) entry["faults"].push_back({{"method", fault->method}, {"fault", fault->kind->key}});
  }
  m_host.record(std::move(entry));
}

}  // namespace orvel::sim
