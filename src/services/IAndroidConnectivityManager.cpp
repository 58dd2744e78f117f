#include "services/IAndroidConnectivityManager.h"

#include <atomic>
#include <cstdint>

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

// Over all lives of the client, since subscriptions may end later than the life that they were made in.
std::atomic<std::uint64_t> s_registrations{0};

// Its result refers to `endpoint`.
auto endpoint_alone(const vesk::EndpointPtr<NetworkCallbackEndpoint>& endpoint) {
  return [&endpoint](vesk_payload* request) { vesk_write_endpoint(request, endpoint->get_endpoint()); };
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
  const bool taken = reply.get() != nullptr;
  LinkRecord& link = m_binder.link();
  m_number = ++s_registrations;
  if (taken) link.network_taken(m_binder.epoch_of(reply.connection()), m_number);
  if (ends) ends->at_end([&link, number = m_number] { link.network_ended(number); });
  reply.keep();
  return taken || !ends;
}

bool IAndroidConnectivityManager::unregisterNetworkCallback() {
  if (!m_binder.good()) return false;
  if (!m_network_callback) {
    s_logger.w("%s:Network callback not registered. No need to unregister", __func__);
    return true;
  }
  s_logger.d("%s:call unregisterNetworkCallback", __func__);
  static_cast<void>(m_binder.call(kDescriptor, kUnregisterNetworkCallback, endpoint_alone(m_network_callback)));
  m_binder.link().network_ended(m_number);
  return true;
}

}  // namespace orvel::service_apis
