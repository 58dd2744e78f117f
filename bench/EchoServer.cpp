#include "EchoServer.h"

#include <spawn.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <unistd.h>
#include <vesk/vesk_service.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <stdexcept>
#include <system_error>
#include <vector>

namespace bench {
namespace {

constexpr const char* kServe = "--serve-echo=";
constexpr const char* kCrowd = "--crowd=";
constexpr int kServerSocket = 3;

int serveSocket() {
  char bytes[65536];
  for (;;) {
    const ssize_t got = ::read(kServerSocket, bytes, sizeof(bytes));
    if (got <= 0 || ::write(kServerSocket, bytes, static_cast<std::size_t>(got)) != got) return 0;
  }
}

int answerOnBus(sd_bus_message* request, void* /*context*/, sd_bus_error* /*error*/) {
  const void* bytes = nullptr;
  std::size_t size = 0;
  sd_bus_message* reply = nullptr;
  int result = sd_bus_message_read_array(request, 'y', &bytes, &size);
  if (result >= 0) result = sd_bus_message_new_method_return(request, &reply);
  if (result >= 0) result = sd_bus_message_append_array(reply, 'y', bytes, size);
  if (result >= 0) result = sd_bus_send(nullptr, reply, nullptr);
  sd_bus_message_unref(reply);
  return result;
}

int serveBus() {
  sd_bus* bus = nullptr;
  sd_event* event = nullptr;
  sd_id128_t id;
  int result = sd_event_new(&event);
  if (result >= 0) result = sd_id128_randomize(&id);
  if (result >= 0) result = sd_bus_new(&bus);
  if (result >= 0) result = sd_bus_set_server(bus, 1, id);
  if (result >= 0) result = sd_bus_set_fd(bus, kServerSocket, kServerSocket);
  if (result >= 0) result = sd_bus_add_object(bus, nullptr, kEchoPath, answerOnBus, nullptr);
  if (result >= 0) result = sd_bus_start(bus);
  if (result >= 0) result = sd_bus_attach_event(bus, event, SD_EVENT_PRIORITY_NORMAL);
  if (result >= 0) result = sd_bus_set_exit_on_disconnect(bus, 1);
  if (result >= 0) result = sd_event_loop(event);
  return result < 0 ? 1 : 0;
}

// The reply is written once for each size: a trip measures the transport, not the writing of values.
int echo(vesk_identity* caller, vesk_buffer* request) {
  static std::map<std::size_t, vesk_payload*> replies;
  vesk_payload*& reply = replies[vesk_buffer_remaining(request)];
  if (reply == nullptr) {
    reply = vesk_payload_alloc();
    while (vesk_buffer_remaining(request) > 0) vesk_write_i64(reply, vesk_read_i64(request));
  }
  return vesk_deferred_answer(vesk_request_defer(caller), 0, reply);
}

// Sends broadcasts of which only the time changes.
class Broadcaster {
 public:
  int keep(vesk_buffer* request) {
    vesk_remote* remote = vesk_read_endpoint(request);
    if (remote == nullptr) return -EINVAL;
    m_receivers.push_back(remote);
    return 0;
  }

  int send(int count) {
    if (m_receivers.empty()) return -ENOENT;
    for (int n = 0; n < count; ++n) {
      vesk_payload_set_position(m_message, m_sent_at);
      vesk_write_i64(m_message, std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count());
      vesk_remote* receiver = m_receivers[m_next++ % m_receivers.size()];
      if (const int error = vesk_remote_call_oneway(receiver, 1, m_message)) return error;
    }
    return 0;
  }

 private:
  // Everything in front of the time; returns the position behind it.
  static unsigned int writeHead(vesk_payload* message) {
    for (const int word : {0, -1, 0x53595354}) vesk_write_i32(message, word);
    vesk_write_utf16_cstring(message, "com.example.IReceiver");
    for (const int word : {1, 1}) vesk_write_i32(message, word);  // an intent of some length
    for (const char* text : {"com.example.action.TIME", "", "", ""}) vesk_write_utf16_cstring(message, text);
    for (const int word : {0, 1, 1}) vesk_write_i32(message, word);  // no component; extras, one
    vesk_write_utf16_cstring(message, kSentAtExtra);
    vesk_write_i32(message, 6);  // a long integer
    return vesk_payload_get_position(message);
  }

  vesk_payload* const m_message = vesk_payload_alloc();
  const unsigned int m_sent_at = writeHead(m_message);
  std::vector<vesk_remote*> m_receivers;
  std::size_t m_next = 0;
};

// The result of an event that succeeded.
vesk_payload* successfulResult() {
  vesk_payload* message = vesk_payload_alloc();
  for (const int word : {0, -1, 0x53595354}) vesk_write_i32(message, word);
  vesk_write_utf16_cstring(message, "com.example.IReceiver");
  for (const int word : {1, 0}) vesk_write_i32(message, word);
  return message;
}

int takeEvent(vesk_buffer* request, vesk_payload* reply) {
  static vesk_payload* const result = successfulResult();
  unsigned int length = 0;
  for (int word = 0; word < 2; ++word) vesk_read_i32(request);
  for (int text = 0; text < 7; ++text) vesk_read_utf16_string(request, &length);
  vesk_read_i32(request);
  vesk_read_utf16_string(request, &length);
  vesk_remote* receiver = vesk_read_endpoint(request);
  if (receiver == nullptr) return -EINVAL;
  const int error = vesk_remote_call_oneway(receiver, 1, result);
  vesk_remote_release(receiver);
  vesk_write_i32(reply, 1);
  return error;
}

// Sends directives to names that clients have published.
class DirectiveBroker {
 public:
  int send(void* runtime, int names, int count) {
    const auto keep = [](void* /*runtime*/, void* handles, const char* /*name*/, vesk_handle handle) {
      static_cast<std::vector<vesk_handle>*>(handles)->push_back(handle);
    };
    while (m_handles.size() < static_cast<std::size_t>(names)) {
      const std::size_t known = m_handles.size();
      vesk_service_bind(runtime, directiveName(static_cast<int>(known)).c_str(), keep, &m_handles);
      if (m_handles.size() == known) return -ENOENT;  // the names are there before the client asks
    }
    for (int n = 0; n < count; ++n) {
      vesk_handle& receiver = m_handles[m_next++ % m_handles.size()];
      if (const int error = vesk_call_oneway(runtime, &receiver, 1, m_message)) return error;
    }
    return 0;
  }

 private:
  static vesk_payload* directive() {
    vesk_payload* message = vesk_payload_alloc();
    for (const char* text : {"Example.Speaker", "SetVolume", "1.0", "{\"volume\":50}", "", "", ""}) {
      vesk_write_utf16_cstring(message, text);
    }
    return message;
  }

  vesk_payload* const m_message = directive();
  std::vector<vesk_handle> m_handles;
  std::size_t m_next = 0;
};

int answerOnHostRuntime(void* runtime, vesk_endpoint* /*endpoint*/, unsigned int code, vesk_identity* caller,
                        vesk_buffer* request, vesk_payload* reply) {
  static Broadcaster broadcaster;
  static DirectiveBroker broker;
  switch (code) {
    case kEcho:
      return echo(caller, request);
    case kKeepEndpoint:
      return broadcaster.keep(request);
    case kSendBroadcasts:
      return broadcaster.send(vesk_read_i32(request));
    case kTakeEvent:
      return takeEvent(request, reply);
    case kSendDirectives: {
      const int names = vesk_read_i32(request);
      return broker.send(runtime, names, vesk_read_i32(request));
    }
    default:
      return -EINVAL;
  }
}

const vesk_endpoint_fn kFunctions = {
    answerOnHostRuntime, [](void*, vesk_endpoint*, unsigned int, vesk_identity*, vesk_buffer*) { return -EINVAL; },
    [](void*, vesk_endpoint*) { return 0; }, [](void*, vesk_endpoint*) { return 0; }};
vesk_endpoint endpoint = {&kFunctions, nullptr};

int serveHostRuntime() {
  void* runtime = nullptr;
  if (vesk_serve_device(&runtime) != 0) return 1;
  if (const int error = vesk_service_register(runtime, kEchoService, &endpoint)) {
    std::fprintf(stderr, "orvel_bench: cannot register %s, error %d\n", kEchoService, error);
    return 1;
  }
  return vesk_run_loop(runtime) == 0 ? 0 : 1;
}

int standAround(int connections) {
  void* runtime = nullptr;
  if (vesk_get_runtime(&runtime) != 0) return 1;
  vesk_buffer* reply = vesk_buffer_alloc();
  for (int n = 0; n < connections; ++n) {
    vesk_handle handle{};
    vesk_payload* request = vesk_payload_alloc();
    vesk_write_endpoint(request, &endpoint);
    if (vesk_binder_servicemanager_get(runtime, kEchoService, &handle) != 0 ||
        vesk_call(runtime, &handle, kKeepEndpoint, request, reply) != 0) {
      std::fprintf(stderr, "orvel_bench: connection %d fails\n", n);
      return 1;
    }
    vesk_payload_free(request);
  }
  char byte = '.';
  if (::write(kServerSocket, &byte, 1) != 1) return 1;
  return static_cast<int>(::read(kServerSocket, &byte, 1));  // until the benchmark is over
}

}  // namespace

Child::Child(std::string role) {
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
    throw std::system_error(errno, std::generic_category(), "socketpair");
  }
  m_socket = ends[0];
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, ends[1], kServerSocket);
  std::string program = "/proc/self/exe";
  char* arguments[] = {program.data(), role.data(), nullptr};
  const int error = ::posix_spawn(&m_pid, program.c_str(), &actions, nullptr, arguments, environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(ends[1]);
  if (error != 0) {
    ::close(m_socket);
    throw std::system_error(error, std::generic_category(), "posix_spawn");
  }
}

Child::~Child() {
  ::close(m_socket);
  ::kill(m_pid, SIGTERM);
  ::waitpid(m_pid, nullptr, 0);
}

EchoServer::EchoServer(Transport transport) : Child(kServe + std::to_string(static_cast<int>(transport))) {}

Crowd::Crowd(int connections) : Child(kCrowd + std::to_string(connections)) {
  char ready = 0;
  if (::read(socket(), &ready, 1) != 1) throw std::runtime_error("the other connections do not come about");
}

int serveIfAsked(int argc, char** argv) {
  const std::string role = argc == 2 ? argv[1] : "";
  const bool is_crowd = role.rfind(kCrowd, 0) == 0;
  if (!is_crowd && role.rfind(kServe, 0) != 0) return -1;
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // a benchmark that is interrupted leaves no server behind
  if (is_crowd) return standAround(std::atoi(role.c_str() + std::string(kCrowd).size()));
  switch (static_cast<Transport>(std::atoi(role.c_str() + std::string(kServe).size()))) {
    case Transport::kSocket:
      return serveSocket();
    case Transport::kBus:
      return serveBus();
    case Transport::kHostRuntime:
      return serveHostRuntime();
  }
  return 2;
}

}  // namespace bench
