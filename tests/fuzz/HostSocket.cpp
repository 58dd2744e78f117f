// The socket of a process that serves: what a peer writes there, in pieces, raw or behind a proper beginning. The process
// ends the connection, and goes on answering others.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include "BusBytes.h"
#include "Fuzz.h"
#include "vesk/vesk.h"
#include "vesk/vesk_service.h"

namespace {

using namespace orvel::fuzz;  // NOLINT(google-build-using-namespace)

constexpr int kPatienceMs = 20'000;
constexpr unsigned kEcho = 1;  // answers with a number of the request; every other code calls what came along
constexpr unsigned kCallTimeoutMs = 20;

class Descriptor {
 public:
  explicit Descriptor(int descriptor) : m_descriptor(descriptor) { require(descriptor >= 0, "there are descriptors"); }
  ~Descriptor() { ::close(m_descriptor); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  [[nodiscard]] int get() const { return m_descriptor; }

 private:
  int m_descriptor;
};

int serveOneWay(void*, vesk_endpoint*, unsigned, vesk_identity*, vesk_buffer* request) {
  vesk_remote* remote = vesk_read_endpoint(request);
  if (remote == nullptr) return 0;
  vesk_payload* news = vesk_payload_alloc();
  vesk_write_i32(news, 7);
  vesk_remote_call_oneway(remote, 1, news);
  vesk_remote_call(
      remote, 2, news, kCallTimeoutMs, [](void*, int, vesk_buffer*) {}, nullptr);
  vesk_payload_free(news);
  vesk_remote_release(remote);
  return 0;
}

int serve(void* runtime, vesk_endpoint* self, unsigned code, vesk_identity* caller, vesk_buffer* request,
          vesk_payload* reply) {
  if (code != kEcho) return serveOneWay(runtime, self, code, caller, request);
  return vesk_write_i32(reply, vesk_read_i32(request));
}

// A process that serves one name, in a directory of its own, until the program ends.
class Server {
 public:
  Server() {
    std::string folder = (std::filesystem::temp_directory_path() / "orvel-fuzz-XXXXXX").string();
    require(::mkdtemp(folder.data()) != nullptr, "there is a place for the directory");
    m_folder = folder;
    ::setenv("ORVEL_RUNTIME_DIR", (m_folder / "device").c_str(), 1);
    require(vesk_serve_device(&m_runtime) == 0 && vesk_service_register(m_runtime, kServiceName, &m_endpoint) == 0,
            "a name can be served");
    m_loop = std::thread([this] { vesk_run_loop(m_runtime); });
    require(vesk_binder_servicemanager_get(m_runtime, kServiceName, &m_handle) == 0, "the name is found");
  }
  ~Server() {
    vesk_shutdown(m_runtime);
    m_loop.join();
    std::filesystem::remove_all(m_folder);
  }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  [[nodiscard]] int connect() const {
    const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string file = (m_folder / "device" / kServiceName).string();
    file.copy(address.sun_path, sizeof(address.sun_path) - 1);
    require(::connect(socket, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0, "everybody may connect");
    return socket;
  }

  void expectAnswer(int number) {
    vesk_payload* request = vesk_payload_alloc();
    vesk_buffer* reply = vesk_buffer_alloc();
    vesk_write_i32(request, number);
    require(vesk_call(m_runtime, &m_handle, kEcho, request, reply) == 0 && vesk_read_i32(reply) == number,
            "the process still answers others");
    vesk_payload_free(request);
    vesk_buffer_free(reply);
  }

 private:
  static constexpr vesk_endpoint_fn kFunctions{serve, serveOneWay, [](void*, vesk_endpoint*) { return 0; },
                                               [](void*, vesk_endpoint*) { return 0; }};

  std::filesystem::path m_folder;
  void* m_runtime = nullptr;
  vesk_endpoint m_endpoint{&kFunctions, nullptr};
  vesk_handle m_handle{};
  std::thread m_loop;
};

// Whoever has closed the socket meanwhile does not want the rest.
void writeAll(int socket, const char* data, std::size_t size, std::size_t piece) {
  while (size > 0) {
    const ssize_t written = ::send(socket, data, std::min(size, piece), MSG_NOSIGNAL);
    if (written <= 0) return;
    data += written;
    size -= static_cast<std::size_t>(written);
  }
}

void sendWithDescriptor(int socket, const std::string& message, int descriptor) {
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
  iovec part{const_cast<char*>(message.data()), message.size()};
  msghdr header{};
  header.msg_iov = &part;
  header.msg_iovlen = 1;
  header.msg_control = control;
  header.msg_controllen = sizeof(control);
  cmsghdr* attached = CMSG_FIRSTHDR(&header);
  attached->cmsg_level = SOL_SOCKET;
  attached->cmsg_type = SCM_RIGHTS;
  attached->cmsg_len = CMSG_LEN(sizeof(int));
  std::memcpy(CMSG_DATA(attached), &descriptor, sizeof(int));
  ::sendmsg(socket, &header, MSG_NOSIGNAL);
}

void expectHangUp(int socket) {
  char received[4096];
  while (true) {
    pollfd watched{socket, POLLIN, 0};
    require(::poll(&watched, 1, kPatienceMs) == 1, "a connection that is shut ends");
    if (::recv(socket, received, sizeof(received), 0) <= 0) return;
  }
}

std::string textOf(Input input) {
  return {reinterpret_cast<const char*>(input.data), input.size};
}

// How what the input says reaches the process.
enum Form : unsigned { kRaw, kAuthenticated, kOpened, kBody, kOneWayBody, kChannel, kForms };

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Server server;
  static int number = 0;
  Choices choices({data, size});
  const unsigned form = choices.byte() % kForms;
  const std::size_t piece = choices.byte() == 0 ? SIZE_MAX : data[1];
  const std::string rest = textOf(choices.rest());
  const Descriptor socket(server.connect());
  const auto write = [&](const std::string& bytes, std::size_t most) {
    writeAll(socket.get(), bytes.data(), bytes.size(), most);
  };
  if (form >= kAuthenticated) write(handshake(), piece);
  if (form >= kOpened) write(busCall(kServicePath, "Open", "", ""), piece);
  if (form == kBody || form == kOneWayBody) {
    const unsigned code = choices.byte();
    const std::string body = BusBytes().u32(code).bytes(textOf(choices.rest())).str();
    write(busCall(kServicePath, "Call", "uay", body, form == kOneWayBody), piece);
  } else if (form == kChannel) {
    int ends[2];
    require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "there are sockets");
    const Descriptor near(ends[0]);
    const Descriptor far(ends[1]);
    // The peer keeps one endpoint, and what it writes to its channel is the input.
    const std::string mark = BusBytes().u32(0x56455350).u32(0).str();
    const std::string body = BusBytes().u32(2).bytes(mark).u32(8).u64(5).u32(0).str();
    const bool greets = choices.byte() % 2 == 1;
    const std::string channel = (greets ? handshake() : "") + textOf(choices.rest());
    writeAll(near.get(), channel.data(), channel.size(), SIZE_MAX);
    sendWithDescriptor(socket.get(), busCall(kServicePath, "Call", "uayath", body, false, 1), far.get());
  } else {
    write(rest, piece);
  }
  ::shutdown(socket.get(), SHUT_WR);
  expectHangUp(socket.get());
  server.expectAnswer(++number);
  return 0;
}
