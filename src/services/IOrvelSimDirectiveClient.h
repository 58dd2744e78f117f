// Directives of the voice assistant, by namespace.
#pragma once

#include <functional>
#include <string>
#include <unordered_set>
#include <utility>

#include "binder/Binder.h"
#include "services/OrvelSimDirectiveCallbackEndpoint.h"
#include "services/ReplayList.h"

namespace orvel::service_apis {

// Asks no service: it publishes an endpoint under a name made from the namespace, where the device's directive broker
// finds it. The coordinating service is bound only to learn that it is back after a death, because the broker has then
// forgotten who there was; everything is published again. A namespace is never given up.
//
// Threads: registering on any, one at a time; the replay on the run loop's.
class IOrvelSimDirectiveClient {
 public:
  // Blocks until the coordinating service is bound or given up; publishing works either way. `context` is the libvesk
  // runtime, borrowed.
  explicit IOrvelSimDirectiveClient(void* context);

  // Calls `callback` with every directive of the namespace. False for an empty namespace or callback, for a namespace
  // with a NUL, and when it could not be published, for one because another process has it. A namespace that is registered already keeps its
  // callback; the new one is dropped and the result, deliberately, is true.
  bool registerForDirective(const std::string& nspace, DirectiveCallback callback);

  // Publishes without keeping: what the above does, and the replay after a death.
  bool registerForDirectiveInternal(const std::string& nspace, DirectiveCallback callback);

  // Publishes everything again. For the Binder, on the run-loop thread, after each successful rebind; takes no lock of
  // its own.
  void onOscReconnectedCallback();

 private:
  using DirectiveRegistration = std::pair<std::string, DirectiveCallback>;

  // Publishes what was kept once more.
  std::function<void(const DirectiveRegistration& kept, Connection newest)> renew();

  void* const m_context;
  std::unordered_set<std::string> m_namespaces;  // those of m_registrations, by name
  ReplayList<DirectiveRegistration> m_registrations;
  Binder m_binder;  // Last: what it calls back uses the rest.
};

}  // namespace orvel::service_apis
