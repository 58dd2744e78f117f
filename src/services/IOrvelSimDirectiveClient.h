// Directives of the voice assistant, by namespace.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <utility>

#include "binder/Binder.h"
#include "services/OrvelSimDirectiveCallbackEndpoint.h"
#include "services/ReplayList.h"

namespace orvel::service_apis {

// Asks no service: it publishes an endpoint under a name made from the namespace, where the device's directive broker
// finds it. The coordinating service is bound only to learn that it is back after a death, because the broker has then
// forgotten every endpoint; all of them are published again. A namespace stays published, also when the callback for
// its directives has ended: libvesk withdraws no name. It may be registered anew then.
//
// Threads: registering on any, one at a time; the replay on the run loop's.
class IOrvelSimDirectiveClient {
 public:
  static constexpr Service kService = Service::kCoordinator;

  // Blocks until the coordinating service is bound or given up, unless `bind` says otherwise; publishing works either
  // way. `runtime` is borrowed.
  explicit IOrvelSimDirectiveClient(void* runtime, Binder::Bind bind = Binder::Bind::kNow);

  // True when the endpoint is published: from then on `callback` gets every directive of the namespace. False for an
  // empty namespace or callback, for a namespace with a NUL, and when libvesk refuses the name, for example because
  // another process has it. Deliberately true, too, for a namespace that is registered already: it keeps its callback,
  // and the new one is dropped. `ends`, if there is one, is what ends the registration.
  bool registerForDirective(const std::string& nspace, DirectiveCallback callback,
                            const std::shared_ptr<Callback>& ends = nullptr);
  // Whether that would do nothing.
  bool is_registered(const std::string& nspace) const;

  // The same without keeping the registration, for the above and for the replay after a death.
  bool registerForDirectiveInternal(const std::string& nspace, DirectiveCallback callback);

  // Publishes everything again. For the Binder, on the run-loop thread, after each successful rebind; takes no lock of
  // its own.
  void onOscReconnectedCallback();

  Binder& binder() { return m_binder; }

 private:
  using DirectiveRegistration = std::pair<std::string, DirectiveCallback>;

  void* const m_runtime;
  std::map<std::string, std::shared_ptr<Callback>> m_namespaces;  // with what ends them, if anything does
  ReplayList<DirectiveRegistration> m_registrations;
  Binder m_binder;  // Last: what it calls back uses the rest.
};

}  // namespace orvel::service_apis
