#include "sim/Control.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "sim/Supervisor.h"

namespace orvel::sim {

Control Control::connect() {
  // That limit is for the clients under test; an order may take longer than they are allowed to wait.
  unsetenv("ORVEL_CALL_TIMEOUT_MS");
  void* runtime = nullptr;
  if (vesk_get_runtime(&runtime) != 0) throw NoDevice(std::string());
  return Control(runtime);
}

Control::Control(void* runtime) : m_runtime(runtime) {
  if (vesk_binder_servicemanager_get(m_runtime, kControlName, &m_handle) != 0) {
    throw NoDevice(std::string("no orvel-sim runs in ") + vesk_runtime_directory());
  }
}

Control::Control(Control&& other) noexcept
    : m_runtime(other.m_runtime), m_handle(std::exchange(other.m_handle, vesk_invalid_handle())) {}

Control::~Control() {
  vesk_service_unbind(m_runtime, &m_handle);
}

Json Control::send(const Json& order, vesk_endpoint* endpoint) {
  const PayloadPtr request(vesk_payload_alloc());
  const BufferPtr reply(vesk_buffer_alloc());
  if (!request || !reply) throw std::bad_alloc();
  writeMessage(request.get(), order);
  if (endpoint != nullptr) vesk_write_endpoint(request.get(), endpoint);
  if (const int error = vesk_call(m_runtime, &m_handle, 0, request.get(), reply.get()); error != 0) {
    const std::string what = std::string("the device in ") + vesk_runtime_directory() + " did not answer: ";
    if (error == -EPIPE || error == -ECONNRESET) throw NoDevice(what + "it has ended");
    throw std::runtime_error(what + std::strerror(-error));
  }
  Json answer = readMessage(reply.get());
  vesk_reply_done(m_runtime, reply.get());
  if (const auto refusal = answer.find("error"); refusal != answer.end()) {
    throw std::runtime_error(refusal->get<std::string>());
  }
  return answer;
}

}  // namespace orvel::sim
