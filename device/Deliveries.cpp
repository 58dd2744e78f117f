#include "device/Deliveries.h"

#include <signal.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <iostream>
#include <new>
#include <utility>

#include "device/Service.h"
#include "device/Traffic.h"

namespace orvel::sim {
namespace {

// More than the six seconds for which a client that binds another service again takes nothing.
constexpr std::chrono::seconds kPatience(8);
// How long a full queue is left alone, and how much is sent before others have their turn.
constexpr std::chrono::milliseconds kPause(5);
constexpr int kBurst = 256;
// Of one client. One that keeps this much waiting or unanswered does not catch up.
constexpr std::size_t kMostWaiting = 100'000;
constexpr std::size_t kMostWaitingBytes = 64 << 20;  // clients broadcast too, and their intents may be large
constexpr std::size_t kMostUnanswered = 1024;
// vesk is to report the answer however late it comes: only then has the client caught up. What is waited for is
// kPatience.
constexpr unsigned kNoLimit = UINT_MAX;

}  // namespace

Notification::Notification(std::string fromService, const CallbackMethod& calledMethod, Json callArguments)
    : service(std::move(fromService)),
      method(calledMethod),
      arguments(std::move(callArguments)),
      payload(vesk_payload_alloc()) {
  if (!payload) throw std::bad_alloc();
  writeHeader(payload.get(), method.descriptor);
  method.write(payload.get(), arguments);
  vesk_payload_data(payload.get(), &size);
}

void Deliveries::send(const std::shared_ptr<const Notification>& notification,
                      const std::vector<RemotePtr>& receivers) {
  const Clock::time_point now = Clock::now();
  for (const RemotePtr& receiver : receivers) {
    Client& client = m_clients[vesk_remote_pid(receiver.get())];
    const Delivery delivery = {notification, receiver, now, m_host.moment()};
    if (client.waiting.size() < kMostWaiting && client.waitingBytes + notification->size <= kMostWaitingBytes) {
      client.waiting.push_back(delivery);
      client.waitingBytes += notification->size;
    } else {
      finish(client, delivery, -ENOBUFS);
    }
  }
  for (auto next = m_clients.begin(); next != m_clients.end();) {
    const auto& [pid, client] = *next++;  // transmit may forget it
    if (!client.pause) transmit(pid);
  }
}

void Deliveries::transmit(pid_t pid) {
  Client& client = m_clients.at(pid);
  client.pause.reset();
  const auto resumeAfter = [&](std::chrono::milliseconds pause) {
    client.pause = std::make_unique<Timer>(m_host.runtime(), pause, [this, pid] { transmit(pid); });
  };
  for (int left = kBurst; left > 0 && !client.waiting.empty(); --left) {
    const Delivery delivery = client.waiting.front();
    const int error = call(pid, delivery);
    if (error == -ENOBUFS && Clock::now() - delivery.start < kPatience) return resumeAfter(kPause);
    client.waiting.pop_front();
    client.waitingBytes -= delivery.notification->size;
    if (error != 0 || !delivery.notification->method.answered) finish(client, delivery, error);
  }
  if (!client.waiting.empty()) return resumeAfter(std::chrono::milliseconds(0));
  forgetIfIdle(pid);
}

int Deliveries::call(pid_t pid, const Delivery& delivery) {
  const Notification& notification = *delivery.notification;
  vesk_remote* receiver = delivery.receiver.get();
  if (!notification.method.answered) {
    return vesk_remote_call_oneway(receiver, notification.method.code, notification.payload.get());
  }
  std::list<Unanswered>& unanswered = m_clients.at(pid).unanswered;
  if (unanswered.size() == kMostUnanswered) return -ENOBUFS;
  const auto sent = unanswered.insert(unanswered.end(), {this, pid, delivery, nullptr, {}});
  sent->self = sent;
  const auto completed = [](void* context, int error, vesk_buffer*) {
    const auto done = static_cast<Unanswered*>(context)->self;
    done->deliveries->answered(done, error);
  };
  const int error =
      vesk_remote_call(receiver, notification.method.code, notification.payload.get(), kNoLimit, completed, &*sent);
  if (error != 0) {
    unanswered.erase(sent);
  } else {
    sent->patience = std::make_unique<Timer>(m_host.runtime(), kPatience, [this, sent] { giveUp(sent); });
  }
  return error;
}

void Deliveries::answered(std::list<Unanswered>::iterator call, int error) {
  const pid_t pid = call->client;
  Client& client = m_clients.at(pid);
  if (call->patience) finish(client, call->delivery, error);
  client.takes = error == 0;  // late, too
  client.unanswered.erase(call);
  forgetIfIdle(pid);
}

// The answer may still come; until then the call counts as unanswered.
void Deliveries::giveUp(std::list<Unanswered>::iterator call) {
  call->patience.reset();
  finish(m_clients.at(call->client), call->delivery, -ETIMEDOUT);
}

void Deliveries::finish(Client& client, const Delivery& delivery, int error) {
  const Notification& notification = *delivery.notification;
  const CallbackMethod& method = notification.method;
  const pid_t pid = vesk_remote_pid(delivery.receiver.get());
  Json entry = trafficEntry(notification.service, "notification", method.name, method.code, pid, notification.arguments,
                            delivery.moment);
  entry["endpoint"] = endpointNumber(delivery.receiver);
  if (error != 0) {
    entry["error"] = error;
  } else if (method.answered) {
    entry["durationMs"] = millisecondsSince(delivery.start);
  }
  m_host.recordSoon(std::move(entry));
  client.takes = error == 0;
  if (error != 0) complain(pid, client, notification, error);
}

void Deliveries::complain(pid_t pid, Client& client, const Notification& notification, int error) {
  const bool gone = error == -EPIPE || error == -ECONNRESET;  // as clients do
  if (gone) return;
  if (error != -ETIMEDOUT) ++client.lost;  // what was sent may be taken yet
  if (std::exchange(client.reported, true)) return;
  std::cerr << "orvel-sim: " << describeProcess(pid) << " does not take what " << notification.service << " tells it ("
            << notification.method.name << ": " << std::strerror(-error) << ")" << std::endl;
}

// One that takes nothing is kept in mind, until it takes something or ends.
void Deliveries::forgetIfIdle(pid_t pid) {
  const auto found = m_clients.find(pid);
  const Client& client = found->second;
  if (!client.waiting.empty() || !client.unanswered.empty()) return;
  const bool ended = ::kill(pid, 0) != 0 && errno == ESRCH;
  if (client.reported && !client.takes && !ended) return;
  if (client.reported && client.takes) {
    std::cerr << "orvel-sim: " << describeProcess(pid) << " takes notifications again; " << withCommas(client.lost)
              << (client.lost == 1 ? " was lost" : " were lost") << std::endl;
  }
  m_clients.erase(found);
}

}  // namespace orvel::sim
