#include "client/Subscriptions.h"

#include <utility>

#include "binder/CallRecord.h"
#include "binder/LinkBoard.h"
#include "binder/Process.h"
#include "client/ClientState.h"

namespace orvel::service_apis {

Subscription::Subscription() noexcept = default;

Subscription::Subscription(std::weak_ptr<Callback> callback) noexcept : m_callback(std::move(callback)), m_made(true) {}

Subscription::~Subscription() {
  end();
}

Subscription::Subscription(Subscription&& other) noexcept
    : m_callback(std::move(other.m_callback)), m_made(std::exchange(other.m_made, false)) {}

Subscription& Subscription::operator=(Subscription&& other) noexcept {
  if (this == &other) return *this;
  end();
  m_callback = std::move(other.m_callback);
  m_made = std::exchange(other.m_made, false);
  return *this;
}

void Subscription::end() noexcept {
  m_made = false;
  const std::weak_ptr<Callback> ended = std::exchange(m_callback, {});
  if (in_forked_child()) return;  // the threads that may be inside do not exist here
  if (const auto callback = ended.lock()) callback->end();
}

void Subscription::keep() noexcept {
  m_made = false;
  m_callback.reset();
}

Subscription Subscriptions::of(const std::shared_ptr<Callback>& callback, bool taken) {
  if (taken) return Subscription(callback);
  if (callback) callback->end();
  return {};
}

Subscription Subscriptions::to_links(std::optional<Service> service, LinkCallback callback) {
  const CallRecord record("subscribeLink", service);
  if (ClientState::refused_in_child("subscribeLink")) return {};
  if (callback) return Subscription(LinkBoard::instance().subscribe(service, std::move(callback)));
  CallRecord::fail(CallStatus::Code::kInvalidArgument, "the callback is empty");
  return {};
}

}  // namespace orvel::service_apis
