// The endpoints that clients registered with a service.
#pragma once

#include <cstddef>
#include <functional>
#include <list>
#include <unordered_map>

#include "device/Service.h"

namespace orvel::sim {

// Kept for one life of the service, each until its client is gone. Registering the same endpoint again makes another
// receiver. Run-loop thread.
class Receivers {
 public:
  Receivers(const ServiceType& type, Host& host) : m_type(type), m_host(host) {}
  ~Receivers();
  Receivers(const Receivers&) = delete;  // its address is what vesk knows it by
  Receivers& operator=(const Receivers&) = delete;

  // The receiver is the one endpoint of the call, and its filter the call's arguments.
  void add(const Call& registration);

  // Every registration of the endpoint.
  void remove(vesk_remote* receiver);

  // As Service::registrations has them.
  Json list() const;

  // Whether a receiver gets a notification, by the call that registered it.
  using Filter = std::function<bool(const Call& registration)>;

  // Sends to those that match, in the order of their registration, and gives their number.
  std::size_t notify(const CallbackMethod& method, const Json& arguments, const Filter& matches);

 private:
  using Registrations = std::list<Call>;

  const ServiceType& m_type;
  Host& m_host;
  Registrations m_registrations;  // the oldest first
  std::unordered_multimap<vesk_remote*, Registrations::iterator> m_byReceiver;
};

}  // namespace orvel::sim
