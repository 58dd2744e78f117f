#include "device/Receivers.h"

#include "device/Traffic.h"

namespace orvel::sim {

Receivers::~Receivers() {
  // What is on its way to a receiver keeps that alive longer than this.
  for (const auto& [receiver, ignored] : m_byReceiver) vesk_remote_on_gone(receiver, nullptr, nullptr);
}

void Receivers::add(const Call& registration) {
  vesk_remote* receiver = registration.endpoints.front().get();
  m_byReceiver.emplace(receiver, m_registrations.insert(m_registrations.end(), registration));
  const auto gone = [](void* self, vesk_remote* remote) { static_cast<Receivers*>(self)->remove(remote); };
  check(vesk_remote_on_gone(receiver, gone, this), "watching a client");
}

void Receivers::remove(vesk_remote* receiver) {
  const auto [first, last] = m_byReceiver.equal_range(receiver);
  if (first == last) return;
  vesk_remote_on_gone(receiver, nullptr, nullptr);
  for (auto each = first; each != last; ++each) m_registrations.erase(each->second);
  m_byReceiver.erase(first, last);
}

Json Receivers::list() const {
  Json list = Json::array();
  for (const Call& call : m_registrations) {
    list.push_back({{"pid", call.caller}, {"client", call.client}, {"method", call.method->name}});
    list.back()["arguments"] = shortened(call.arguments);
  }
  return list;
}

std::size_t Receivers::notify(const CallbackMethod& method, const Json& arguments, const Filter& matches) {
  std::vector<RemotePtr> receivers;
  for (const Call& registration : m_registrations) {
    if (matches(registration)) receivers.push_back(registration.endpoints.front());
  }
  if (!receivers.empty()) {
    m_host.deliveries().send(std::make_shared<const Notification>(m_type.id, method, arguments), receivers);
  }
  return receivers.size();
}

}  // namespace orvel::sim
