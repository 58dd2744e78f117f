// The frame of the simulated services: each describes itself in one table, from which requests are dispatched, traffic
// is decoded, faults are named and help texts are written.
#pragma once

#include <sys/types.h>

#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "device/CurrentScenario.h"
#include "device/Deliveries.h"
#include "device/Endpoint.h"
#include "device/Faults.h"
#include "device/Shape.h"
#include "device/Timer.h"
#include "device/Wire.h"

namespace orvel::sim {

class Service;
struct Call;
struct Method;
struct ServiceType;

// What every section has: its faults, and how the service lives.
constexpr char kFaults[] = "faults";
constexpr char kAlive[] = "alive";
constexpr char kFlap[] = "flap";
// What a scenario has beside its sections.
constexpr char kAbout[] = "about";

// What the process that a service runs in does for it. Run-loop thread.
class Host {
 public:
  explicit Host(void* runtime) : m_runtime(runtime) {}
  virtual ~Host() = default;
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  void* runtime() { return m_runtime; }
  Deliveries& deliveries() { return m_deliveries; }
  virtual const Json& scenario() const = 0;
  // Takes effect before it returns, for the whole device.
  virtual void change(const Json& change) = 0;
  // Adds an entry to the traffic. record has added it when it returns, so that a client that has its reply finds it
  // there.
  virtual void record(Json entry) = 0;
  virtual void recordSoon(Json entry) = 0;
  // What the traffic says of the moment at which a call has come or a notification is sent, beside the time of its end
  // by the wall clock; null: nothing.
  virtual Json moment() { return {}; }
  // The processes that are connected to the service: a list of {"pid", "client", "sinceMs"}. Empty where the service
  // runs in the process of its clients.
  virtual Json connections(const ServiceType&) { return Json::array(); }
  // How the call is to end, in the words of faults and with the result as "reply"; null: as the service and its faults
  // say.
  virtual Json replayed(const ServiceType&, const Call&) { return {}; }

 private:
  void* m_runtime;
  Deliveries m_deliveries{*this};
};

// A request, taken apart.
struct Call {
  const Method* method = nullptr;  // null: no method has the code
  unsigned code = 0;
  pid_t caller = 0;
  pid_t thread = 0;    // of the caller; 0: not known
  std::string client;  // the name of the caller's program
  Clock::time_point arrival;
  Json moment;  // of its arrival, by the host
  Json arguments = Json::object();
  std::vector<RemotePtr> endpoints;        // in the order of the arguments
  std::optional<RemoteException> refusal;  // what is wrong with the request
  Json replayed;                           // by the host; null: nothing
  std::set<std::string> turns;             // of the faults that count calls (FaultCounts)
  bool wasDelayed = false;                 // by a fault
};

struct Argument {
  std::string name;
  Json (*read)(RequestReader& reader);
};

struct Method {
  unsigned code;
  std::string name;
  std::vector<Argument> arguments;                                 // in wire order
  std::function<Json(Service& service, const Call& call)> handle;  // the result; may throw RemoteException
  void (*write)(vesk_payload* reply, const Json& result);
  std::string field = {};  // of the service's section, which is the result; empty where `handle` works it out
};

struct ServiceType {
  std::string id;          // its section of the scenario, and its name in commands
  std::string name;        // under which clients find it
  std::string descriptor;  // of its interface
  std::string summary;
  std::vector<Field> fields;  // of its section
  std::vector<Method> methods;
  std::unique_ptr<Service> (*make)(const ServiceType& type, Host& host);
  std::vector<const CallbackMethod*> callbacks = {};  // of its clients
};

// Every service of the device.
const std::vector<const ServiceType*>& allServices();

// By its own name or that under which clients find it. Throws ScenarioError, which lists what there is.
const ServiceType& serviceCalled(const std::string& id);
const Method* methodWith(const ServiceType& type, unsigned code);  // null where there is none
const Method& methodCalled(const ServiceType& type, const std::string& name);

// "  33  getDeviceName()", one line a method.
std::string describeMethods(const ServiceType& type);

// One life of a service, from being published until it is killed; what it keeps of its clients ends with it. Run-loop
// thread.
class Service : public Endpoint {
 public:
  Service(const ServiceType& type, Host& host) : m_type(type), m_host(host) {}
  // Its clients see it die. On the run-loop thread, before vesk_shutdown.
  ~Service() override;

  const ServiceType& type() const { return m_type; }

  void publish();  // throws std::system_error

  // These values of the scenario have become others; every service hears of all. The scenario has the new ones.
  void changed(const std::vector<Difference>& differences);

  // {"registrations", "connections"}, as registrations() and Host::connections have them.
  Json clients() { return {{"registrations", registrations()}, {"connections", m_host.connections(m_type)}}; }

  // What its clients have registered: a list of {"pid", "client", "method", "arguments"}, the oldest first.
  virtual Json registrations() const { return Json::array(); }

  // Something happened, or is asked, that changes no state. Gives the answer; what it throws is the answer otherwise.
  virtual Json event(const Json& event);

  // Of the scenario in force.
  const Json& section() const { return m_host.scenario().at(m_type.id); }

 protected:
  virtual void changed(const Difference& difference);

  Host& host() { return m_host; }

 private:
  struct Late {
    Call call;
    vesk_deferred* answer;
    std::unique_ptr<Timer> timer;  // null: never
  };

  int onCall(unsigned code, vesk_identity* caller, vesk_buffer* request, vesk_payload* reply) override;
  Call decode(unsigned code, vesk_identity* caller, vesk_buffer* request);
  std::vector<Fault> faultsOf(const Call& call) const;
  void answerLate(std::list<Late>::iterator late);
  void hangUp(const Late& late, const Fault& drop);
  void countDrop(const Fault& drop);
  int answer(const Call& call, vesk_payload* reply);  // an error code where the call is to fail
  // With the faults that have made it so.
  void record(const Call& call, Json outcome, const std::vector<const Fault*>& struck);

  const ServiceType& m_type;
  Host& m_host;
  std::list<Late> m_late;
  FaultCounts m_faultCounts;
  bool m_published = false;
};

// What a service's table holds for its own class: how one is made, and a member function as Method::handle.
template <typename Type>
std::unique_ptr<Service> makeService(const ServiceType& type, Host& host) {
  return std::make_unique<Type>(type, host);
}
template <typename Type>
Json callHandler(Json (Type::*handler)(const Call&), Service& service, const Call& call) {
  return (static_cast<Type&>(service).*handler)(call);
}
template <auto Handler>
Json handledBy(Service& service, const Call& call) {
  return callHandler(Handler, service, call);
}

// A method without arguments that gives a field of the service's section.
Method getter(unsigned code, const char* name, const char* field, void (*write)(vesk_payload*, const Json&));

}  // namespace orvel::sim
