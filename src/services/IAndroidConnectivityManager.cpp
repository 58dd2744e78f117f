#include "services/IAndroidConnectivityManager.h"

#include "binder/LeakCheck.h"
#include "binder/OrvelLogger.h"
#include "services/ServiceNames.h"
#include "services/Transact.h"

namespace orvel::service_apis {
namespace {

const OrvelLogger& s_logger = *new OrvelLogger("IAndroidConnectivityManager");

constexpr char kDescriptor[] = "com.quarlo.orveldelegate.androidconnectivitymanager.IAndroidConnectivityManager";

enum Transaction : unsigned int {
  kRegisterDefaultNetworkCallback = 4,
  kUnregisterNetworkCallback = 5,
};

RequestWriter only(const vesk::EndpointPtr<NetworkCallbackEndpoint>& endpoint) {
  return [endpoint](vesk_payload* request) { vesk_write_endpoint(request, endpoint->get_endpoint()); };
}

}  // namespace

IAndroidConnectivityManager::IAndroidConnectivityManager(void* runtime)
    : m_binder(runtime, service_names::kConnectivityManager, /*is_android_service=*/false) {}

bool IAndroidConnectivityManager::registerDefaultNetworkCallback(const std::function<void(bool)>& callback) {
  if (!m_binder.good()) return false;
  s_logger.d("%s:call registerDefaultNetworkCallback", __func__);
  m_network_callback = vesk::make_endpoint<NetworkCallbackEndpoint>(callback);
  // Deliberately not ended by done(): the request and the reply stay with the Binder, and its next call forgets them.
  ReplyScope reply(m_binder);
  reply.keep();
  const LeakCheckPause forgotten;
  static_cast<void>(m_binder.call(kDescriptor, kRegisterDefaultNetworkCallback, only(m_network_callback)));
  return true;
}

bool IAndroidConnectivityManager::unregisterNetworkCallback() {
  if (!m_binder.good()) return false;
  if (!m_network_callback) {
    s_logger.w("%s:Network callback not registered. No need to unregister", __func__);
    return true;
  }
  s_logger.d("%s:call unregisterNetworkCallback", __func__);
  transact(m_binder, kDescriptor, kUnregisterNetworkCallback, only(m_network_callback), replied);
  return true;
}

}  // namespace orvel::service_apis
