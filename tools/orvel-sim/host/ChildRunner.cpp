#include "tools/orvel-sim/host/ChildRunner.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <system_error>
#include <utility>

#include "tools/orvel-sim/host/IsolatedService.h"

namespace orvel::sim {
namespace {

constexpr unsigned kMessageTimeoutMs = 5000;

Json messageOf(const Update& update) {
  return {{"revision", update.revision}, {"edits", update.edits}};
}

}  // namespace

void ChildRunner::launch(Done done) {
  const std::vector<std::string> arguments = {"orvel-sim", kServeAlone, type().id, std::to_string(getpid())};
  try {
    m_process = std::make_unique<Process>(m_event, "/proc/self/exe", arguments, Process::Streams::kErrorsOnly,
                                          [this](const siginfo_t& end) { ended(end); });
    m_started = std::move(done);
  } catch (const std::system_error& error) {
    done(error.what());
  }
}

void ChildRunner::ready() {
  if (const Done started = std::exchange(m_started, nullptr)) started({});
}

void ChildRunner::end(Done done) {
  const Done earlier = std::exchange(m_killed, nullptr);
  m_killed = [earlier, done = std::move(done)](const std::string& error) {
    if (earlier) earlier(error);
    done(error);
  };
  ::kill(pid(), SIGKILL);
}

void ChildRunner::stop() {
  m_started = nullptr;
  m_killed = nullptr;
  m_messages.clear();
  m_remote.reset();
  if (pid() != 0) ::kill(pid(), SIGTERM);
}

void ChildRunner::ended(const siginfo_t& end) {
  if (!m_killed) tell(false);
  const std::string how = "service " + type().id + " (process " + std::to_string(end.si_pid) + ") " + describeEnd(end);
  m_process.reset();
  m_remote.reset();
  const Done started = std::exchange(m_started, nullptr);
  const Done killed = std::exchange(m_killed, nullptr);
  if (started) started(how + " before it served");
  if (killed) killed({});
  if (started || killed) return;
  std::cerr << "orvel-sim: " << how << "; starting it again" << std::endl;
  start([](const std::string& error) {
    if (!error.empty()) std::cerr << "orvel-sim: " << error << "; it stays dead until it is restarted" << std::endl;
  });
}

// A process that is dead, or dies meanwhile, learns the whole scenario when it starts.
void ChildRunner::update(const Update& update, Done done) {
  send({{"updates", Json::array({messageOf(update)})}}, true, [this, done = std::move(done)](int error, const Json&) {
    done(error == 0 || error == -EPIPE ? "" : type().id + " did not take the change: " + std::strerror(-error));
  });
}

void ChildRunner::recording(bool recorded, Done done) {
  send({{"recording", recorded}}, false, [this, done = std::move(done)](int error, const Json&) {
    done(error == 0 || error == -EPIPE ? "" : type().id + " did not take the change: " + std::strerror(-error));
  });
}

void ChildRunner::event(const Json& event, Answer answer) {
  send({{"event", event}}, false, [this, answer = std::move(answer)](int error, const Json& heard) {
    answer(error == 0 ? heard : failure(type().id + " did not take the event: " + std::strerror(-error)));
  });
}

void ChildRunner::clients(Answer answer) {
  send({{"clients", true}}, false, [this, answer = std::move(answer)](int error, const Json& heard) {
    answer(error == 0 ? heard : failure(type().id + " did not answer: " + std::strerror(-error)));
  });
}

Json ChildRunner::learntFrom(const Update& own) const {
  Json updates = Json::array();
  for (const Message& message : m_messages) {
    if (!message.update.is_null()) updates.push_back(message.update);
  }
  updates.push_back(messageOf(own));
  return {{"updates", updates}};
}

void ChildRunner::send(const Json& message, bool isUpdate, Heard heard) {
  const PayloadPtr payload(vesk_payload_alloc());
  if (!payload) return heard(-ENOMEM, {});
  if (!m_remote) return heard(-EPIPE, {});
  writeMessage(payload.get(), message);
  const Json update = isUpdate ? message.at("updates").front() : Json();
  const auto sent = m_messages.insert(m_messages.end(), {this, update, std::move(heard), {}});
  sent->self = sent;
  const auto completed = [](void* context, int error, vesk_buffer* reply) {
    const Message& done = *static_cast<Message*>(context);
    const Heard callHeard = done.heard;
    done.runner->m_messages.erase(done.self);
    callHeard(error, error == 0 ? readMessage(reply) : Json());
  };
  if (const int error = vesk_remote_call(m_remote.get(), 0, payload.get(), kMessageTimeoutMs, completed, &*sent)) {
    completed(&*sent, error, nullptr);
  }
}

}  // namespace orvel::sim
