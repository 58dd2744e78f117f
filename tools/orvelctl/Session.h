// One use of the client by the command line: what interrupts it, what became of its calls, where the results go.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>

#include "orvel/OrvelDelegateClient.h"

namespace orvelctl {

using Json = nlohmann::ordered_json;
using Seconds = std::chrono::duration<double>;
using Client = orvel::service_apis::OrvelDelegateClient;

enum ExitStatus : int { kSuccess = 0, kFailed = 1, kUsage = 2, kNoDevice = 3, kTimedOut = 4, kNotBound = 5 };

// In one line; bytes that are not UTF-8 are replaced.
std::string asText(const Json& json);

// Flushes standard output; false, and a line on standard error, when something could not be written.
bool outputWritten();

// Shuts the client down when SIGINT, SIGTERM or SIGHUP arrives or the time is over, so that whatever call is in
// progress ends. Made before any other thread, so that all of them leave the signals to its own. A second signal ends
// the process.
class Interrupter {
 public:
  explicit Interrupter(std::optional<Seconds> limit);
  ~Interrupter();
  Interrupter(const Interrupter&) = delete;
  Interrupter& operator=(const Interrupter&) = delete;

  // The exit status that the interruption gives; 0 while there was none.
  int status() const { return m_status; }

  // Readable from an interruption on.
  int descriptor() const { return m_interrupted; }

 private:
  void wait(std::optional<Seconds> limit);

  const int m_interrupted;
  std::atomic<int> m_status{0};
  std::atomic<bool> m_over{false};
  std::thread m_thread;
};

// An initialised client. One thread.
class Session {
 public:
  Session(double timeout, bool json);  // seconds; 0: none
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // False when there is no session to be had; status() then says why.
  bool open();

  // Makes one call. It failed when the library logged an error meanwhile, or when it gave `nothing`, which is what a
  // failed call gives, and `service` is not bound. Standard error then says that `what` failed, the exit status is
  // kept, and there is no result. `service` is empty for what needs none.
  std::optional<Json> ask(const std::string& what, const std::string& service, const Json& nothing,
                          const std::function<Json(Client&)>& call);

  // Makes a call that gives whether it succeeded, and prints that it did.
  void carryOut(const std::string& what, const std::string& service, const std::function<bool(Client&)>& call,
                const Json& object, const std::string& text);

  // Makes a call at whose failure nothing is lost.
  void attempt(const std::function<void(Client&)>& call) { call(m_client); }

  bool json() const { return m_json; }

  // Keeps the exit status of a failure, the first one if there are several.
  void keep(ExitStatus status);

  // The same, and says what failed.
  void fail(const std::string& message, ExitStatus status = kFailed);

  // Writes one result, as the object or as the text, and makes sure that it got there.
  void print(const Json& object, const std::string& text);

  // The exit status of it all.
  int status() const;

  // Readable when a signal or the limit has ended the session.
  int interruption() const { return m_interrupter.descriptor(); }

  // Ctrl-C is how one ends what has no end of its own: it is no failure.
  void acceptInterrupt() { m_interrupt_accepted = true; }

  // Shuts the client down at the end of a scope, for what its callbacks must not outlive.
  class Stop {
   public:
    explicit Stop(Session& session) : m_session(session) {}
    ~Stop() { m_session.m_client.shutdown(); }
    Stop(const Stop&) = delete;
    Stop& operator=(const Stop&) = delete;

   private:
    Session& m_session;
  };

 private:
  Interrupter m_interrupter;
  Client& m_client;
  bool m_json;
  ExitStatus m_status = kSuccess;
  bool m_interrupt_accepted = false;
};

}  // namespace orvelctl
