// Makes subscriptions that end.
#pragma once

#include <memory>
#include <optional>

#include "binder/Callback.h"
#include "orvel/Links.h"
#include "orvel/Subscription.h"

namespace orvel::service_apis {

class Subscriptions {
 public:
  Subscriptions() = delete;

  // The subscription of a callback that was `taken`; an empty one, and the callback ended, if it was not. Null for one
  // that was not even made. Under no lock that callbacks take.
  static Subscription of(const std::shared_ptr<Callback>& callback, bool taken);

  static Subscription to_links(std::optional<Service> service, LinkCallback callback);
};

}  // namespace orvel::service_apis
