// The other end of a round trip: three servers in processes of their own, each of which answers with what it got.
#pragma once

#include <sys/types.h>

#include <string>

namespace bench {

// How a round trip travels.
enum class Transport {
  kSocket,       // a bare socket pair
  kBus,          // sd-bus between the two ends of a socket pair
  kHostRuntime,  // libvesk
};

// The name that the host runtime's server registers.
constexpr const char* kEchoService = "orvel.bench.echo";

// What that server does beyond answering with as many bytes as it got.
enum EchoCode : unsigned int {
  kEcho = 1,
  kKeepEndpoint,    // takes an endpoint to send broadcasts to
  kSendBroadcasts,  // takes a number and sends so many, to all its endpoints in turn, before it answers
  kTakeEvent,       // takes an event for the assistant with its endpoint, and sends its result before it answers
  kSendDirectives,  // takes two numbers: of names, and of directives to send to them in turn before it answers
};

// The name under which a client publishes the endpoint of its `n`th namespace.
inline std::string directiveName(int n) {
  return "sim_broker_service_Bench" + std::to_string(n) + "_vesk_endpoint";
}

// The extra of a broadcast that tells when it was sent, by the steady clock in nanoseconds.
constexpr const char* kSentAtExtra = "com.example.extra.SENT_AT";

// The names of the bus server's object and method.
constexpr const char* kEchoPath = "/echo";
constexpr const char* kEchoInterface = "orvel.bench";
constexpr const char* kEchoMethod = "Echo";

// A child process that runs this program anew in another role, until the object ends. Throws std::system_error.
class Child {
 public:
  explicit Child(std::string role);
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  [[nodiscard]] pid_t pid() const { return m_pid; }

  // This process's end of the socket pair.
  [[nodiscard]] int socket() const { return m_socket; }

 private:
  int m_socket = -1;
  pid_t m_pid = 0;
};

class EchoServer : public Child {
 public:
  explicit EchoServer(Transport transport);
};

// Clients of the host runtime's server, which must be up: so many connections with a callback channel each, on which
// nothing happens. Throws std::runtime_error when not all of them come about.
class Crowd : public Child {
 public:
  explicit Crowd(int connections);
};

// For main(): runs the role that the command line asks for, and returns its exit status; -1 when it asks for none.
int serveIfAsked(int argc, char** argv);

}  // namespace bench
