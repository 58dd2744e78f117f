// One use of the client by the command line: what interrupts it, what became of its calls, where the results go.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <variant>
#include <vector>

#include "Services.h"
#include "orvel/OrvelDelegateClient.h"
#include "tools/cli/Failure.h"

namespace orvelctl {

using Json = nlohmann::ordered_json;
using Seconds = std::chrono::duration<double>;
using Client = orvel::service_apis::OrvelDelegateClient;

using orvel::cli::ExitStatus;
using orvel::cli::Failure;
using orvel::cli::kFailed;
using orvel::cli::kNoDevice;
using orvel::cli::kNotBound;
using orvel::cli::kSuccess;
using orvel::cli::kTimedOut;
using orvel::cli::kUsage;

// What its messages begin with.
constexpr char kProgram[] = "orvelctl";

// In one line, without control characters; bytes that are not UTF-8 are replaced.
std::string asText(const Json& json);

// Shuts the client down when SIGINT, SIGTERM or SIGHUP arrives or the time is over, so that the call in progress ends.
// Made before any other thread, so that all of them leave the signals to its own. A second signal ends the process.
class Interrupter {
 public:
  explicit Interrupter(std::optional<Seconds> limit);
  ~Interrupter();
  Interrupter(const Interrupter&) = delete;
  Interrupter& operator=(const Interrupter&) = delete;

  // The exit status that the interruption gives; 0 while there was none.
  int status() const { return m_status; }

  // The interruption as a failure; there must have been one.
  Failure failure() const;

  // Readable from an interruption on.
  int descriptor() const { return m_interrupted; }

 private:
  void wait();
  void shutDownUntilOver();

  const std::optional<Seconds> m_limit;
  const int m_interrupted;
  std::atomic<int> m_status{0};
  std::atomic<bool> m_over{false};
  std::thread m_thread;
};

// A started client. One thread.
class Session {
 public:
  Session(double timeout, bool json);  // seconds; 0: none
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Returns true when there is a device; status() says so when there is none. Waits for no service.
  bool open();

  // Makes one call, as soon as the service that it asks was found or given up. The failure says that `what` failed, for
  // the reason that the last call of the client has left.
  std::variant<Json, Failure> call(const std::string& what, std::optional<Service> service,
                                   const std::function<Json(Client&)>& call);

  // The same, with the failure said and kept. No result after an interruption.
  std::optional<Json> ask(const std::string& what, std::optional<Service> service,
                          const std::function<Json(Client&)>& call);

  // The same for a call that gives whether the service took it; true when it did.
  bool order(const std::string& what, std::optional<Service> service, const std::function<bool(Client&)>& call);

  // The same, and prints that it did.
  void carryOut(const std::string& what, Service service, const std::function<bool(Client&)>& call, const Json& object,
                const std::string& text);

  Client& client() { return m_client; }

  bool json() const { return m_json; }

  // Keeps a failure for the end, where the first gives the exit status.
  void keep(Failure failure) { m_failures.push_back(std::move(failure)); }

  // The same, and says what failed.
  void fail(Failure failure);

  // Says something that is not a failure, on standard error.
  static void note(const std::string& text);

  // Writes one result, as the object or as lines, and makes sure that it got there. A line stays one, whatever a
  // service has put into it: control characters are escaped.
  void print(const Json& object, const std::string& line) { print(object, std::vector<std::string>{line}); }
  void print(const Json& object, const std::vector<std::string>& lines);

  // The same for a text that may go out as it is.
  void printAsIs(const Json& object, const std::string& text);

  // Writes as much of it as a pipe that takes something takes without blocking, and takes that off. False, with a
  // message, on failure.
  bool writeSome(std::string& text);

  // The exit status that the failures so far give.
  int status() const;

  // The same, once at the end: with --json it also writes the failures to standard output.
  int finish();

  // Readable when a signal or the limit has ended the session.
  int interruption() const { return m_interrupter.descriptor(); }

  // From now on Ctrl-C is the regular end of the session and not a failure.
  void acceptInterrupt() { m_interrupt_accepted = true; }

 private:
  // Waits while the client looks for a service that was not there yet; says so when that takes long.
  void waitFor(Service service);

  // Writes it all, or as much as gets away before an interruption.
  void write(std::string text);

  // What has failed, that which gives the exit status first.
  std::vector<Failure> failures() const;

  Interrupter m_interrupter;
  Client& m_client;
  bool m_json;
  std::vector<Failure> m_failures;
  bool m_output_lost = false;  // standard output failed
  bool m_mid_line = false;     // or has got a part of a line only
  bool m_interrupt_accepted = false;
};

}  // namespace orvelctl
