#include "tools/orvel-sim/host/Control.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "tools/cli/DeviceDirectory.h"
#include "tools/orvel-sim/host/Devices.h"
#include "vesk/vesk.h"

namespace orvel::sim {
namespace {

std::atomic<bool> g_time_is_over{false};
std::atomic<void*> g_runtime{nullptr};  // of the messages, once there is one

std::string noAnswer() {
  return std::string("the device in ") + vesk_runtime_directory() + " did not answer: ";
}

std::string otherAdvice() {
  return runningDevices().empty() ? "" : "; or choose one that runs: orvel-sim devices";
}

void checkTime() {
  if (g_time_is_over) throw TimedOut(noAnswer() + "the time given by --timeout is over");
}

}  // namespace

TimeLimit::TimeLimit(std::chrono::duration<double> limit)
    : m_alarm(limit, [] {
        // In this order: a thread that gets a runtime too late to be interrupted sees that the time is over.
        g_time_is_over = true;
        if (void* const runtime = g_runtime) vesk_shutdown(runtime);
      }) {}

Control Control::connect() {
  // That limit is for the clients under test; a message may take longer than they are allowed to wait.
  unsetenv("ORVEL_CALL_TIMEOUT_MS");
  const std::string directory = vesk_runtime_directory();
  // Looked for here first: the runtime says less, and in its own name.
  if (const cli::Problem problem = cli::deviceProblem(directory); !problem.what.empty()) {
    throw NoDevice(cli::noDevice(directory, problem) + otherAdvice());
  }
  void* runtime = nullptr;
  if (vesk_get_runtime(&runtime) != 0) throw NoDevice(std::string());
  g_runtime = runtime;
  checkTime();
  return Control(runtime);
}

Control::Control(void* runtime) : m_runtime(runtime) {
  if (vesk_binder_servicemanager_get(m_runtime, kControlName, &m_handle) != 0) {
    throw NoDevice(std::string("no orvel-sim runs in ") + vesk_runtime_directory() + otherAdvice());
  }
}

Control::Control(Control&& other) noexcept
    : m_runtime(other.m_runtime), m_handle(std::exchange(other.m_handle, vesk_invalid_handle())) {}

Control::~Control() {
  vesk_service_unbind(m_runtime, &m_handle);
}

Json Control::send(const Json& message, vesk_endpoint* endpoint) {
  const PayloadPtr request(vesk_payload_alloc());
  const BufferPtr reply(vesk_buffer_alloc());
  if (!request || !reply) throw std::bad_alloc();
  writeMessage(request.get(), message);
  if (endpoint != nullptr) vesk_write_endpoint(request.get(), endpoint);
  if (const int error = vesk_call(m_runtime, &m_handle, 0, request.get(), reply.get()); error != 0) {
    checkTime();
    if (error == -EPIPE || error == -ECONNRESET || error == -ECANCELED) throw NoDevice(noAnswer() + "it has ended");
    if (error == -ETIMEDOUT) throw TimedOut(noAnswer() + std::strerror(-error));
    throw std::runtime_error(noAnswer() + std::strerror(-error));
  }
  Json answer = readMessage(reply.get());
  vesk_reply_done(m_runtime, reply.get());
  if (const auto refusal = answer.find("error"); refusal != answer.end()) {
    throw std::runtime_error(refusal->get<std::string>());
  }
  return answer;
}

}  // namespace orvel::sim
