// The assistant's coordinator: no client calls it. It takes directives to the clients that hold their namespaces.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <list>
#include <new>
#include <stdexcept>
#include <string>
#include <system_error>

#include "device/ServiceNames.h"
#include "device/Traffic.h"
#include "device/services/Services.h"

namespace orvel::sim {
namespace {

// A client takes no more from one process than 128, for all that it offers.
constexpr std::size_t kMostConnections = 100;

// Nothing goes before the texts: no header, no descriptor. Clients look at no code here.
void writeDirective(vesk_payload* payload, const Json& directive) {
  if (!directive.at("namespace").is_string()) throw std::invalid_argument("a directive without a namespace");
  for (const Json& text : directive.at("texts")) writeText(payload, text);
}
const CallbackMethod kDirective = {1, "directive", "", /*answered=*/false, writeDirective};

// A connection to the client that held a namespace when it was made.
class Connection {
 public:
  Connection(void* runtime, const std::string& nspace, vesk_death_callback* death)
      : m_runtime(runtime), m_namespace(nspace), m_death(death) {
    const std::string name = holderName(nspace);
    check(vesk_binder_servicemanager_get(runtime, name.c_str(), &m_handle), name.c_str());
    vesk_handle_link_to_death(runtime, &m_handle, m_death);
  }
  ~Connection() {
    vesk_handle_unlink_to_death(m_runtime, &m_handle, m_death);
    vesk_service_unbind(m_runtime, &m_handle);
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  const std::string& nspace() const { return m_namespace; }
  bool isNamedBy(const vesk_handle& handle) const {
    return std::memcmp(m_handle.words, handle.words, sizeof(handle.words)) == 0;
  }
  pid_t pid() const { return vesk_handle_pid(m_runtime, &m_handle); }
  int call(vesk_payload* request) { return vesk_call_oneway(m_runtime, &m_handle, kDirective.code, request); }

 private:
  void* m_runtime;
  std::string m_namespace;
  vesk_death_callback* m_death;
  vesk_handle m_handle{};
};

class CoordinatorService : public Service {
 public:
  using Service::Service;

 private:
  // A directive: {"namespace": text, "texts": in wire order}.
  Json event(const Json& directive) override {
    const std::string nspace = directive.at("namespace");
    if (nspace.empty()) throw std::runtime_error("the namespace is empty");
    const PayloadPtr request(vesk_payload_alloc());
    if (!request) throw std::bad_alloc();
    kDirective.write(request.get(), directive);

    const bool kept = use(nspace);
    int error = m_connections.front().call(request.get());
    if (kept && error != 0 && error != -ENOBUFS) {
      // Its process has ended and the news of that is still to come; another may be in its place.
      m_connections.pop_front();
      use(nspace);
      error = m_connections.front().call(request.get());
    }
    const pid_t pid = m_connections.front().pid();
    Json entry =
        trafficEntry(type().id, "notification", kDirective.name, kDirective.code, pid, directive, host().moment());
    if (error != 0) entry["error"] = error;
    host().recordSoon(std::move(entry));
    if (error != 0) {
      throw std::runtime_error("process " + std::to_string(pid) + ", which holds the namespace " + nspace +
                               ", does not take the directive: " + std::strerror(-error));
    }
    return {{"pid", pid}};
  }

  // Puts the connection to the namespace's holder first, and says whether it was there. Throws std::runtime_error.
  bool use(const std::string& nspace) {
    const auto serves = [&](const Connection& connection) { return connection.nspace() == nspace; };
    const auto kept = std::find_if(m_connections.begin(), m_connections.end(), serves);
    if (kept != m_connections.end()) {
      m_connections.splice(m_connections.begin(), m_connections, kept);
      return true;
    }
    try {
      m_connections.emplace_front(host().runtime(), nspace, &m_death);
    } catch (const std::system_error& error) {
      if (error.code().value() == ENOENT) throw std::runtime_error("no client holds the namespace " + nspace);
      throw std::runtime_error("the namespace " + nspace + " cannot be reached: " + error.code().message());
    }
    if (m_connections.size() > kMostConnections) m_connections.pop_back();
    return false;
  }

  void died(const vesk_handle& handle) {
    m_connections.remove_if([&](const Connection& connection) { return connection.isNamedBy(handle); });
  }

  vesk_death_callback m_death = {
      [](void*, vesk_death_callback* self, vesk_handle* handle) {
        static_cast<CoordinatorService*>(self->context)->died(*handle);
      },
      [](vesk_death_callback*) {},
      [](vesk_death_callback*) {},
      this,
  };
  // The most recently used first. They are kept because nothing is promised about the order between connections, and
  // because letting go of one drops what is still on its way.
  std::list<Connection> m_connections;
};

}  // namespace

const ServiceType& coordinatorService() {
  static const ServiceType type = {
      "coordinator", kCoordinatorName, "", "directives of the assistant", {}, {}, makeService<CoordinatorService>,
      {&kDirective},
  };
  return type;
}

}  // namespace orvel::sim
