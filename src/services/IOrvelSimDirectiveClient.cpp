#include "services/IOrvelSimDirectiveClient.h"

#include <cerrno>

#include "binder/Admission.h"
#include "binder/OrvelLogger.h"
#include "services/ServiceNames.h"
#include "vesk/vesk.h"

namespace orvel::service_apis {
namespace {

const OrvelLogger& s_logger = *new OrvelLogger("IOrvelSimDirectiveClient");

// Where the broker looks for whoever has the namespace.
std::string endpoint_name(const std::string& nspace) {
  return "sim_broker_service_" + nspace + "_vesk_endpoint";
}

bool are_valid(const char* method, const std::string& nspace, const DirectiveCallback& callback) {
  // Behind a NUL the name would be another one.
  if (!nspace.empty() && nspace.find('\0') == std::string::npos && callback) return true;
  s_logger.e("%s:Invalid parameter(s)", method);
  return false;
}

}  // namespace

IOrvelSimDirectiveClient::IOrvelSimDirectiveClient(void* context)
    : m_context(context), m_binder(context, service_names::kCoordinator, /*is_android_service=*/true, [this] {
        onOscReconnectedCallback();
      }) {}

bool IOrvelSimDirectiveClient::registerForDirective(const std::string& nspace, DirectiveCallback callback) {
  if (!are_valid(__func__, nspace, callback)) return false;
  if (m_namespaces.count(nspace) != 0) {
    s_logger.e("%s:namespace is already registered. nspace=%s", __func__, nspace.c_str());
    return true;
  }
  // Read before publishing: a broker that came back meanwhile is told again by whoever sees the newer connection first.
  const Connection connection = m_binder.connection();
  if (!registerForDirectiveInternal(nspace, callback)) return false;
  m_registrations.add({nspace, std::move(callback)}, connection, m_binder, renew());
  m_namespaces.insert(nspace);  // Last: what is in it will be published again, even if memory ran out before.
  return true;
}

bool IOrvelSimDirectiveClient::registerForDirectiveInternal(const std::string& nspace, DirectiveCallback callback) {
  if (!are_valid(__func__, nspace, callback)) return false;
  const auto endpoint = vesk::make_endpoint<OrvelSimDirectiveCallbackEndpoint>(std::move(callback));
  const std::string name = endpoint_name(nspace);
  const int error = run_unless_shut_down([&] {
                      return vesk_service_register(m_context, name.c_str(), endpoint->get_endpoint());
                    }).value_or(-ESHUTDOWN);
  if (error != 0) {
    s_logger.e("%s:vesk service register failed. nspace=%s, err=%d", __func__, nspace.c_str(), error);
  }
  return error == 0;
}

void IOrvelSimDirectiveClient::onOscReconnectedCallback() {
  s_logger.i("%s:OSC reconnected, re-registering directive callbacks", __func__);
  m_registrations.replay(m_binder, renew());
}

// One that fails here is tried again after the next death.
std::function<void(const IOrvelSimDirectiveClient::DirectiveRegistration&, Connection)>
IOrvelSimDirectiveClient::renew() {
  return
      [this](const DirectiveRegistration& kept, Connection) { registerForDirectiveInternal(kept.first, kept.second); };
}

}  // namespace orvel::service_apis
