// Starting without waiting for all services, and the links to them.
#include <algorithm>
#include <string>
#include <system_error>
#include <utility>

#include "binder/LinkBoard.h"
#include "binder/Process.h"
#include "binder/Waiting.h"
#include "client/ClientState.h"
#include "client/Subscriptions.h"
#include "orvel/OrvelDelegateClient.h"

namespace orvel::service_apis {
namespace {

constexpr char kInterrupted[] = "shutdown() has interrupted";

LinkRecord& link_to(Service service) {
  return LinkBoard::instance().record(service);
}

bool all_are(const std::vector<Service>& services, LinkState state) {
  return std::all_of(services.begin(), services.end(),
                     [&](Service service) { return link_to(service).state() == state; });
}

bool one_is(const std::vector<Service>& services, LinkState state) {
  return std::any_of(services.begin(), services.end(),
                     [&](Service service) { return link_to(service).state() == state; });
}

// Those that are not up: "delegate is connecting, power is given up".
std::string missing(const std::vector<Service>& services) {
  std::string text;
  for (const Service service : services) {
    const LinkState state = link_to(service).state();
    if (state == LinkState::kUp) continue;
    text += std::string(text.empty() ? "" : ", ") + nameOf(service) + " is " + nameOf(state);
  }
  return text;
}

}  // namespace

bool ClientState::launch_beside() {
  const Disposal disposal;
  const std::lock_guard<waiting::Mutex> lifecycle(m_lifecycle);
  const std::lock_guard<OwnedMutex> facade(m_facade);
  if (m_initialized) return true;
  void* const runtime = runtime_for("start");
  if (!runtime) return false;
  if (!launch(runtime, Binder::Bind::kBeside)) {
    s_client_logger.e("%s:Interrupted by shutdown", "start");
    CallRecord::fail(CallStatus::Code::kNotInitialised, kInterrupted);
    return false;
  }
  for (const Service service : kAllServices) bind_beside(binder_of(service));
  s_client_logger.i("%s:OrvelDelegateClient started", "start");
  return true;
}

bool ClientState::start(const StartOptions& options) {
  const CallRecord record(__func__);
  if (refused(__func__)) return false;
  if (options.wait && options.required.empty()) {
    s_client_logger.e("%s:No service is required", __func__);
    CallRecord::fail(CallStatus::Code::kInvalidArgument,
                     "no service is required: name one, or set `wait` to false to wait for none");
    return false;
  }
  const bool waits = options.wait && !Callback::keeps_shutdown_waiting();
  if (!Callback::keeps_shutdown_waiting() && !launch_beside()) return false;
  if (!options.wait) return true;
  const auto is_decided = [&] {
    return all_are(options.required, LinkState::kUp) || one_is(options.required, LinkState::kGivenUp) ||
           one_is(options.required, LinkState::kStopped);
  };
  auto waited = LinkBoard::Waited::kWanted;
  if (waits) waited = LinkBoard::instance().wait(is_decided, options.deadline);
  if (all_are(options.required, LinkState::kUp)) return true;
  const std::string still = missing(options.required);
  s_client_logger.e("%s:Not all required services are up: %s", __func__, still.c_str());
  if (waited == LinkBoard::Waited::kInterrupted || one_is(options.required, LinkState::kStopped)) {
    CallRecord::fail(CallStatus::Code::kNotInitialised, kInterrupted);
  } else if (is_decided() || !waits) {
    CallRecord::fail(CallStatus::Code::kNotBound, still);
  } else {
    CallRecord::fail(CallStatus::Code::kTimedOut, "the deadline has passed, and " + still);
  }
  return false;
}

Binder& ClientState::binder_of(Service service) {
  Binder* found = nullptr;
  std::apply(
      [&](const auto&... proxies) {
        ((proxies->kService == service ? static_cast<void>(found = &proxies->binder()) : void()), ...);
      },
      m_proxies);
  return *found;
}

void ClientState::bind_beside(Binder& binder) {
  try {
    if (m_beside.start("orvel-bind", [&binder] { binder.bind_beside(); })) return;
    binder.link().given_up("shutdown() has interrupted");
  } catch (const std::system_error& error) {
    binder.link().given_up("no thread could be made to look for it");
    s_client_logger.e("%s:%s", __func__, error.what());
  }
}

bool ClientState::rebind(Service service) {
  const CallRecord record(__func__, service);
  if (refused(__func__)) return false;
  const std::lock_guard<OwnedMutex> facade(m_facade);
  if (!m_initialized) {
    s_client_logger.e("%s:Client is not initialized", __func__);
    CallRecord::fail(CallStatus::Code::kNotInitialised, "the client is not initialised");
    return false;
  }
  Binder& binder = binder_of(service);
  if (binder.link().look_for()) bind_beside(binder);
  return true;
}

bool OrvelDelegateClient::start(const StartOptions& options) {
  const bool started = m_state.start(options);
  LinkBoard::instance().tell();
  return started;
}

Link OrvelDelegateClient::state(Service service) const {
  if (!in_forked_child()) return link_to(service).get();
  Link none;  // its lock may be held by a thread that does not exist here
  none.service = service;
  none.cause = "this is the child of a fork";
  return none;
}

Subscription OrvelDelegateClient::subscribeLink(Service service, LinkCallback callback) {
  return Subscriptions::to_links(service, std::move(callback));
}

Subscription OrvelDelegateClient::subscribeLink(LinkCallback callback) {
  return Subscriptions::to_links(std::nullopt, std::move(callback));
}

bool OrvelDelegateClient::waitFor(Service service, LinkState state, std::chrono::nanoseconds limit) const {
  const CallRecord record(__func__, service);
  if (ClientState::refused_in_child(__func__)) return false;
  const auto is_there = [&] { return link_to(service).state() == state; };
  if (is_there()) return true;
  if (Callback::keeps_shutdown_waiting()) {
    s_client_logger.e("%s:Called from a callback, which keeps the link as it is", __func__);
    CallRecord::fail(CallStatus::Code::kRefused, "called from a callback, which keeps the link as it is");
    return false;
  }
  const bool was_stopped = link_to(service).state() == LinkState::kStopped;
  const auto has_stopped = [&] { return !was_stopped && link_to(service).state() == LinkState::kStopped; };
  const auto waited = LinkBoard::instance().wait([&] { return is_there() || has_stopped(); }, limit);
  if (is_there()) return true;
  if (waited == LinkBoard::Waited::kInterrupted || has_stopped()) {
    CallRecord::fail(CallStatus::Code::kNotInitialised, kInterrupted);
  } else {
    CallRecord::fail(CallStatus::Code::kTimedOut, std::string("the link is ") + nameOf(link_to(service).state()));
  }
  return false;
}

bool OrvelDelegateClient::rebind(Service service) {
  return m_state.rebind(service);
}

void OrvelDelegateClient::setExecutor(Executor executor) {
  const CallRecord record(__func__);
  if (ClientState::refused_in_child(__func__)) return;
  Callback::set_executor(std::move(executor));
}

}  // namespace orvel::service_apis
