// Directives of the voice assistant, by namespace.
#pragma once

#include <string>
#include <unordered_set>
#include <utility>

#include "binder/Binder.h"
#include "services/OrvelSimDirectiveCallbackEndpoint.h"
#include "services/ReplayList.h"

namespace orvel::service_apis {

// Asks no service: it publishes an endpoint under a name made from the namespace, where the device's directive broker
// finds it. The coordinating service is bound only to learn that it is back after a death, because the broker has then
// forgotten every endpoint; all of them are published again. A namespace is never given up.
//
// Threads: registering on any, one at a time; the replay on the run loop's.
class IOrvelSimDirectiveClient {
 public:
  // Blocks until the coordinating service is bound or given up; publishing works either way. `runtime` is borrowed.
  explicit IOrvelSimDirectiveClient(void* runtime);

  // True when the endpoint is published: from then on `callback` gets every directive of the namespace. False for an
  // empty namespace or callback, for a namespace with a NUL, and when libvesk refuses the name, for example because
  // another process has it. Deliberately true, too, for a namespace that is registered already: it keeps its callback,
  // and the new one is dropped.
  bool registerForDirective(const std::string& nspace, DirectiveCallback callback);

  // The same without keeping the registration, for the above and for the replay after a death.
  bool registerForDirectiveInternal(const std::string& nspace, DirectiveCallback callback);

  // Publishes everything again. For the Binder, on the run-loop thread, after each successful rebind; takes no lock of
  // its own.
  void onOscReconnectedCallback();

 private:
  using DirectiveRegistration = std::pair<std::string, DirectiveCallback>;

  void* const m_runtime;
  std::unordered_set<std::string> m_namespaces;  // those of m_registrations, by name
  ReplayList<DirectiveRegistration> m_registrations;
  Binder m_binder;  // Last: what it calls back uses the rest.
};

}  // namespace orvel::service_apis
