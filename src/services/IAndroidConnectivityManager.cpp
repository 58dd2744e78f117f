#include "services/IAndroidConnectivityManager.h"

#include "binder/LeakCheck.h"
#include "binder/OrvelLogger.h"
#include "services/ServiceNames.h"

namespace orvel::service_apis {
namespace {

const OrvelLogger& s_logger = *new OrvelLogger("IAndroidConnectivityManager");

constexpr char kDescriptor[] = "com.quarlo.orveldelegate.androidconnectivitymanager.IAndroidConnectivityManager";

enum Transaction : unsigned int {
  kRegisterDefaultNetworkCallback = 4,
  kUnregisterNetworkCallback = 5,
};

RequestWriter endpoint_alone(const vesk::EndpointPtr<NetworkCallbackEndpoint>& endpoint) {
  return [endpoint](vesk_payload* request) { vesk_write_endpoint(request, endpoint->get_endpoint()); };
}

}  // namespace

IAndroidConnectivityManager::IAndroidConnectivityManager(void* runtime, Binder::Bind bind)
    : m_binder(
          runtime, service_names::kConnectivityManager, /*is_android_service=*/false, [] {},
          LinkBoard::instance().record(kService), bind) {}

bool IAndroidConnectivityManager::registerDefaultNetworkCallback(const std::function<void(bool)>& callback,
                                                                 const std::shared_ptr<Callback>& ends) {
  if (!m_binder.good()) return false;
  s_logger.d("%s:call registerDefaultNetworkCallback", __func__);
  m_network_callback = vesk::make_endpoint<NetworkCallbackEndpoint>(callback);
  const LeakCheckPause forgotten;
  // Deliberately not ended by done(): the request and the reply stay with the Binder, and its next call forgets them.
  Binder::Reply reply = m_binder.call(kDescriptor, kRegisterDefaultNetworkCallback, endpoint_alone(m_network_callback));
  LinkRecord& link = m_binder.link();
  if (reply.get()) link.network_taken(m_binder.epoch_of(reply.connection()), m_network_callback.get());
  if (ends) ends->at_end([&link, holder = m_network_callback.get()] { link.network_ended(holder); });
  reply.keep();
  return true;
}

bool IAndroidConnectivityManager::unregisterNetworkCallback() {
  if (!m_binder.good()) return false;
  if (!m_network_callback) {
    s_logger.w("%s:Network callback not registered. No need to unregister", __func__);
    return true;
  }
  s_logger.d("%s:call unregisterNetworkCallback", __func__);
  static_cast<void>(m_binder.call(kDescriptor, kUnregisterNetworkCallback, endpoint_alone(m_network_callback)));
  m_binder.link().network_ended(m_network_callback.get());
  return true;
}

}  // namespace orvel::service_apis
