#include "services/IOrvelSimDirectiveClient.h"

#include <cerrno>

#include "binder/Admission.h"
#include "binder/CallRecord.h"
#include "binder/OrvelLogger.h"
#include "services/ServiceNames.h"
#include "vesk/vesk.h"

namespace orvel::service_apis {
namespace {

const OrvelLogger& s_logger = *new OrvelLogger("IOrvelSimDirectiveClient");

// The name under which the broker finds the endpoint of a namespace.
std::string endpoint_name(const std::string& nspace) {
  return "sim_broker_service_" + nspace + "_vesk_endpoint";
}

bool are_valid(const char* method, const std::string& nspace, const DirectiveCallback& callback) {
  // libvesk would cut the name at a NUL, and publish the endpoint under another name.
  if (!nspace.empty() && nspace.find('\0') == std::string::npos && callback) return true;
  s_logger.e("%s:Invalid parameter(s)", method);
  CallRecord::fail(CallStatus::Code::kInvalidArgument, "the namespace is empty or holds a NUL");
  return false;
}

}  // namespace

// A registration that fails to be renewed is tried again after the next death.
IOrvelSimDirectiveClient::IOrvelSimDirectiveClient(void* runtime, Binder::Bind bind)
    : m_runtime(runtime),
      m_registrations(m_binder,
                      [this](const DirectiveRegistration& registration, Connection) {
                        return registerForDirectiveInternal(registration.first, registration.second);
                      }),
      m_binder(
          runtime, service_names::kCoordinator, /*is_android_service=*/true, [this] { onOscReconnectedCallback(); },
          LinkBoard::instance().record(kService), bind) {}

bool IOrvelSimDirectiveClient::is_registered(const std::string& nspace) const {
  const auto known = m_namespaces.find(nspace);
  return known != m_namespaces.end() && !(known->second && known->second->ended());
}

bool IOrvelSimDirectiveClient::registerForDirective(const std::string& nspace, DirectiveCallback callback,
                                                    const std::shared_ptr<Callback>& ends) {
  if (!are_valid(__func__, nspace, callback)) return false;
  if (is_registered(nspace)) {
    s_logger.e("%s:namespace is already registered. nspace=%s", __func__, nspace.c_str());
    return true;
  }
  // Read before publishing: when the broker comes back meanwhile, add() or the replay publishes the endpoint again.
  const Connection published_on = m_binder.connection();
  if (!registerForDirectiveInternal(nspace, callback)) return false;
  m_registrations.add({nspace, std::move(callback)}, published_on, ends);
  m_namespaces[nspace] = ends;  // Last: each namespace in it is in the list too, even when memory runs out here.
  return true;
}

bool IOrvelSimDirectiveClient::registerForDirectiveInternal(const std::string& nspace, DirectiveCallback callback) {
  if (!are_valid(__func__, nspace, callback)) return false;
  const auto endpoint = vesk::make_endpoint<OrvelSimDirectiveCallbackEndpoint>(std::move(callback));
  const std::string name = endpoint_name(nspace);
  const int error = run_unless_shut_down([&] {
                      return vesk_service_register(m_runtime, name.c_str(), endpoint->get_endpoint());
                    }).value_or(-ESHUTDOWN);
  if (error != 0) {
    s_logger.e("%s:vesk service register failed. nspace=%s, err=%d", __func__, nspace.c_str(), error);
    CallRecord::fail_with(error);
  }
  return error == 0;
}

void IOrvelSimDirectiveClient::onOscReconnectedCallback() {
  s_logger.i("%s:OSC reconnected, re-registering directive callbacks", __func__);
  m_registrations.replay();
}

}  // namespace orvel::service_apis
