#include "sim/Runner.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <system_error>
#include <utility>

namespace orvel::sim {
namespace {

constexpr unsigned kUpdateTimeoutMs = 5000;

}  // namespace

pid_t InProcessRunner::pid() const {
  return m_service ? getpid() : 0;
}

void InProcessRunner::start(Done done) {
  try {
    auto service = type().make(type(), m_host);
    service->publish();
    m_service = std::move(service);
  } catch (const std::system_error& error) {
    return done(error.what());
  }
  done({});
}

void InProcessRunner::kill(Done done) {
  m_service.reset();
  done({});
}

// The service reads the scenario of this process.
void InProcessRunner::update(const Json&, Done done) {
  done({});
}

void ChildRunner::start(Done done) {
  const std::vector<std::string> arguments = {"orvel-sim", "serve-alone", type().id, std::to_string(getpid())};
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

void ChildRunner::kill(Done done) {
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
  m_updates.clear();
  m_remote.reset();
  if (pid() != 0) ::kill(pid(), SIGTERM);
}

void ChildRunner::ended(const siginfo_t& end) {
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

void ChildRunner::update(const Json& news, Done done) {
  const PayloadPtr payload(vesk_payload_alloc());
  if (!m_remote || !payload) return done({});  // dead: it is told when it starts
  writeMessage(payload.get(), news);
  const auto update = m_updates.insert(m_updates.end(), {this, std::move(done), {}});
  update->self = update;
  const auto completed = [](void* context, int error, vesk_buffer*) {
    const Update& sent = *static_cast<Update*>(context);
    ChildRunner& runner = *sent.runner;
    const Done tell = sent.done;
    runner.m_updates.erase(sent.self);
    // Whoever died meanwhile is told when it starts.
    tell(error == 0 || error == -EPIPE ? "" : runner.type().id + " did not take the change: " + std::strerror(-error));
  };
  if (const int error = vesk_remote_call(m_remote.get(), 0, payload.get(), kUpdateTimeoutMs, completed, &*update)) {
    completed(&*update, error, nullptr);
  }
}

}  // namespace orvel::sim
