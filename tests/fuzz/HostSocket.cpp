// The socket of a process that serves: what a peer writes there, in pieces, raw or behind a proper beginning. The
// process ends the connection, and goes on answering others.
#include <sys/socket.h>

#include <cstdlib>
#include <string>
#include <thread>

#include "Fuzz.h"
#include "support/BusMessage.h"
#include "support/Process.h"
#include "vesk/vesk_service.h"

namespace {

using namespace orvel::fuzz;  // NOLINT(google-build-using-namespace)
using namespace orvel::test;  // NOLINT(google-build-using-namespace)
using orvel::fuzz::require;

constexpr int kPatienceMs = 20'000;
constexpr char kServiceName[] = "fuzz";
constexpr unsigned kEcho = 1;  // answers with a number of the request; every other code calls what came along

int serveOneWay(void*, vesk_endpoint*, unsigned, vesk_identity*, vesk_buffer* request) {
  vesk_remote* remote = vesk_read_endpoint(request);
  if (remote == nullptr) return 0;
  const vesk::PayloadPtr news(vesk_payload_alloc());
  vesk_remote_call_oneway(remote, 1, news.get());
  vesk_remote_call(
      remote, 2, news.get(), /*timeout_ms=*/20, [](void*, int, vesk_buffer*) {}, nullptr);
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
    ::setenv("ORVEL_RUNTIME_DIR", m_folder.path().c_str(), 1);
    require(vesk_serve_device(&m_runtime) == 0 && vesk_service_register(m_runtime, kServiceName, &m_endpoint) == 0,
            "a name can be served");
    m_loop = std::thread([this] { vesk_run_loop(m_runtime); });
    m_line = connect();
    m_line.send(kBusHello + bus_open(kServiceName).bytes());
  }
  ~Server() {
    vesk_shutdown(m_runtime);
    m_loop.join();
  }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  [[nodiscard]] BusLine connect() const { return BusLine::to(m_folder.path() / kServiceName); }

  // Over a connection from before the attacks.
  void expectAnswer(std::uint32_t serial) {
    m_line.send(bus_call(kServiceName, serial, kEcho, "1234").bytes());
    const auto answer = m_line.receive(kPatienceMs);
    require(answer && answer->reply_serial == serial && answer->body.substr(8) == "1234", "it still answers others");
  }

 private:
  static constexpr vesk_endpoint_fn kFunctions{serve, serveOneWay, [](void*, vesk_endpoint*) { return 0; },
                                               [](void*, vesk_endpoint*) { return 0; }};

  TemporaryDirectory m_folder;
  void* m_runtime = nullptr;
  vesk_endpoint m_endpoint{&kFunctions, nullptr};
  BusLine m_line{vesk::UniqueFd()};
  std::thread m_loop;
};

// How what the input says reaches the process.
enum Form : unsigned { kRaw, kAuthenticated, kOpened, kBody, kOneWayBody, kChannel, kForms };

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Server server;
  static std::uint32_t serial = 1;
  Choices choices({data, size});
  const unsigned form = choices.byte() % kForms;
  const std::size_t piece = choices.byte();
  BusLine line = server.connect();
  const auto send = [&](const std::string& bytes) { line.send(bytes, {}, piece == 0 ? SIZE_MAX : piece); };
  if (form >= kAuthenticated) send(kBusHello);
  if (form >= kOpened) send(bus_open(kServiceName).bytes());
  if (form == kBody || form == kOneWayBody) {
    const unsigned code = choices.byte();
    BusMessage call = bus_call(kServiceName, 2, code, choices.text());
    if (form == kOneWayBody) call.flags = kNoReplyExpected;
    send(call.bytes());
  } else if (form == kChannel) {
    // The peer keeps one endpoint, and what it writes to its channel is the input.
    auto [mine, theirs] = socket_pair(SOCK_STREAM);
    const bool greets = choices.byte() % 2 == 1;
    BusLine(std::move(mine)).send((greets ? kBusHello : "") + choices.text());
    const Bytes mark = Bytes().i32(0x56455350).i32(0);
    line.send(bus_call(kServiceName, 2, 2, view_of(mark), {{5}}).bytes(), {theirs.get()});
  } else {
    send(choices.text());
  }
  ::shutdown(line.descriptor(), SHUT_WR);
  require(line.is_dropped(kPatienceMs), "a connection that is shut ends");
  server.expectAnswer(++serial);
  return 0;
}
