#include "device/Service.h"

#include "device/Traffic.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace orvel::sim {
namespace {

bool drops(const Json& fault) {
  const auto drop = fault.find("drop");
  return drop != fault.end() && *drop != false;
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
    if (type->id == id) return *type;
    known.push_back(type->id);
  }
  throw ScenarioError("no service is called " + id + "; there are " + joined(known));
}

const Method& methodCalled(const ServiceType& type, const std::string& name) {
  std::vector<std::string> known;
  for (const Method& method : type.methods) {
    if (method.name == name) return method;
    known.push_back(method.name);
  }
  if (known.empty()) throw ScenarioError(type.id + " has no methods");
  throw ScenarioError("no method of " + type.id + " is called " + name + "; there are " + joined(known));
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
  for (const Difference& difference : differences) changed(difference);
}

void Service::changed(const Difference&) {}

Json Service::event(const Json&) {
  throw std::runtime_error(m_type.id + " knows no events");
}

int Service::onCall(unsigned code, vesk_identity* caller, vesk_buffer* request, vesk_payload* reply) {
  Call call = decode(code, caller, request);
  call.replayed = m_host.replayed(m_type, call);
  const Json fault = faultOf(call);
  const bool hangs = fault.value("hang", false);
  const std::chrono::milliseconds delay(fault.value("delayMs", std::int64_t{0}));
  if (!hangs && !drops(fault) && delay.count() == 0) return answer(call, reply);
  vesk_deferred* owed = vesk_request_defer(caller);
  if (owed == nullptr) return -ENOMEM;
  const auto late = m_late.insert(m_late.end(), {std::move(call), owed, nullptr});
  if (hangs) {
    record(late->call, {{"hangs", true}});
  } else if (delay.count() == 0) {
    answerLate(late);
  } else {
    late->timer = std::make_unique<Timer>(m_host.runtime(), delay, [this, late] { answerLate(late); });
  }
  return 0;
}

Call Service::decode(unsigned code, vesk_identity* caller, vesk_buffer* request) {
  Call call;
  call.method = methodWith(m_type, code);
  call.code = code;
  call.caller = vesk_identity_pid(caller);
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

// A method's own faults go before those of every method.
Json Service::faultOf(const Call& call) const {
  if (!call.replayed.is_null()) return call.replayed;
  const Json& faults = section().at(kFaults);
  Json fault = faults.value(kEveryMethod, Json::object());
  if (call.method != nullptr) fault.update(faults.value(call.method->name, Json::object()));
  return fault;
}

void Service::answerLate(std::list<Late>::iterator late) {
  if (drops(faultOf(late->call))) {
    hangUp(*late);
    m_late.erase(late);
    return;
  }
  const PayloadPtr reply(vesk_payload_alloc());
  const int error = reply ? answer(late->call, reply.get()) : -ENOMEM;
  vesk_deferred_answer(late->answer, error, reply.get());
  m_late.erase(late);
}

// To the caller it looks as if the service had died; other clients see nothing.
void Service::hangUp(const Late& late) {
  countDrop(late.call);
  record(late.call, {{"drops", true}, {"durationMs", millisecondsSince(late.call.arrival)}});
  vesk_deferred_hang_up(late.answer);
}

// What drops some calls only has one fewer left; where it is the method's own, that of every method stays as it is.
void Service::countDrop(const Call& call) {
  if (!call.replayed.is_null()) return;
  const Json& faults = section().at(kFaults);
  const auto hasDrop = [&](const std::string& method) {
    return faults.contains(method) && faults.at(method).contains("drop");
  };
  const std::string method = call.method != nullptr && hasDrop(call.method->name) ? call.method->name : kEveryMethod;
  const Json& drop = faults.at(method).at("drop");
  if (!drop.is_number()) return;
  const Json::json_pointer path = Json::json_pointer() / m_type.id / kFaults / method / "drop";
  Json change = {{"path", path.to_string()}};
  if (const auto left = drop.get<std::int64_t>() - 1; left > 0) change["value"] = left;
  m_host.change(change);
}

int Service::answer(const Call& call, vesk_payload* reply) {
  const Json fault = faultOf(call);
  if (const int error = fault.value("error", 0); error != 0) {
    record(call, {{"error", error}, {"durationMs", millisecondsSince(call.arrival)}});
    return error;
  }
  Json outcome;
  try {
    if (call.refusal) throw RemoteException(*call.refusal);
    if (const auto told = fault.find("exception"); told != fault.end()) {
      throw RemoteException(told->at("code"), told->at("message"), told->at("trace"));
    }
    const auto recorded = fault.find("reply");
    const Json result = recorded == fault.end() ? call.method->handle(*this, call) : *recorded;
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
  if (const auto most = fault.find("truncateTo"); most != fault.end() && *most < size) {
    vesk_payload_truncate(reply, most->get<std::size_t>());
    outcome["truncatedTo"] = *most;
  }
  outcome["durationMs"] = millisecondsSince(call.arrival);
  record(call, outcome);
  return 0;
}

void Service::record(const Call& call, const Json& outcome) {
  const Json name = call.method == nullptr ? Json() : Json(call.method->name);
  Json entry = trafficEntry(m_type.id, "method", name, call.code, call.caller, call.arguments, call.moment);
  for (const RemotePtr& endpoint : call.endpoints) entry["endpoints"].push_back(endpointNumber(endpoint));
  entry.update(outcome);
  m_host.record(std::move(entry));
}

}  // namespace orvel::sim
