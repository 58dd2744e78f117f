/// @file
/// A device for the tests of a client: the services, the transport and the time, all inside the test's own process.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace orvel::testing {

/// The words that lead to a value of the device, as `orvel-sim set` takes them: "name", {"delegate", "name"},
/// {"setting", "volume"}.
class Words {
 public:
  /// A field alone.
  Words(const char* field) : m_words{field} {}  // NOLINT(google-explicit-constructor)
  /// The same.
  Words(std::string field) : m_words{std::move(field)} {}  // NOLINT(google-explicit-constructor)
  /// Section, field and keys, as many as it takes.
  Words(std::initializer_list<const char*> words) : m_words(words.begin(), words.end()) {}
  /// The same.
  Words(std::vector<std::string> words) : m_words(std::move(words)) {}  // NOLINT(google-explicit-constructor)

  /// The words, in their order.
  const std::vector<std::string>& list() const { return m_words; }

 private:
  std::vector<std::string> m_words;
};

/// What a client asked of a service, in the words of `orvel-sim traffic`.
struct Call {
  std::string service;    ///< "delegate"
  std::string method;     ///< "getSecureSetting"
  std::string arguments;  ///< as JSON: {"key":"volume"}
  std::string reply;      ///< as JSON; empty where there is none
  /// What came in place of a whole reply, "exception -5: ...", "hangs"; empty when nothing went wrong.
  std::string failure;
  std::chrono::nanoseconds duration;  ///< in virtual time
  std::chrono::nanoseconds time{};    ///< when it came to the service, in virtual time since the device's start
  std::uint64_t sequence = 0;  ///< its place among all calls and notifications, by their beginnings; the first has 1
};

/// What a service told a client.
struct Notification {
  std::string service;    ///< "delegate"
  std::string name;       ///< "settingChanged"
  std::string arguments;  ///< as JSON
  /// Empty when the client has taken it; "exception: ..." with the text of what its callback threw. A notification that
  /// needs no answer counts as taken until the callback has thrown: settle() before you look.
  std::string failure;
  std::chrono::nanoseconds time{};  ///< when the service sent it, in virtual time since the device's start
  std::uint64_t sequence = 0;  ///< its place among all calls and notifications, by their beginnings; the first has 1
};

/// What a client registered for and still is.
struct Registration {
  std::string service;    ///< "delegate"
  std::string method;     ///< "registerForBroadcast"; "directive" for a namespace of the assistant's
  std::string arguments;  ///< as JSON
};

/// For every method of a service.
constexpr char kEveryMethod[] = "*";

/// A device that lives as long as this object does. A test program that links Orvel::TestDevice in place of
/// Orvel::DelegateClient runs the client library's own code against the simulated device's own services, without
/// sockets, files or further processes.
///
///     orvel::testing::TestDevice device(R"({"delegate": {"name": "Kitchen"}})");
///     client.initialize();
///     device.set("name", "Living room");
///     device.settle();   // the client has heard of it
///
/// One at a time in a process: the constructor of a second one throws std::logic_error while the first exists, and the
/// place is free again when that is destroyed or could not be made. Destroying it shuts the client down, so that the
/// next test finds it uninitialised; what isMaroConnected() said last is the one thing that the client keeps.
///
/// Threads. The services run on a thread of the device's, callbacks on the client's run-loop thread, all else on the
/// test's. Every method may be called from any thread, callbacks included, and has taken effect when it returns;
/// settle() and advance() are not for callbacks and acts, and they do not know of threads that the test makes itself.
///
/// Time is virtual. It passes only inside settle(), advance() and calls of the client that have to wait: a call of a
/// service that hangs ends at once with the call limit, 30 s later. A rebind waits for settle() or advance(). What is
/// to happen while a call waits is given to at() before.
///
/// Errors: std::invalid_argument for what orvel-sim would refuse, with the same text.
class TestDevice {
 public:
  /// `scenario` is the text of a scenario, "{...}", or what `orvel-sim run --scenario` takes: the name of one that
  /// ships with it, or a file.
  explicit TestDevice(const std::string& scenario = "{}");
  ~TestDevice();
  TestDevice(const TestDevice&) = delete;
  TestDevice& operator=(const TestDevice&) = delete;

  /// @name What the device knows
  /// Values are words too: a text as it is, everything else as JSON.
  /// @{

  /// Changes a value; the clients that registered for it are told.
  void set(const Words& words, const std::string& value);
  /// Removes a key, such as a setting.
  void unset(const Words& words);
  /// Empty where nothing is set.
  std::string get(const Words& words) const;
  /// Switches the screen on or off.
  void screen(bool on);
  /// "install", "replace" or "remove" a package; `values` as JSON: {"versionCode": 7}.
  void package(const std::string& act, const std::string& name, const std::string& values = "{}");
  /// "start", "stop" or "foreground" a process.
  void process(const std::string& act, const std::string& name, const std::string& values = "{}");
  /// @}

  /// @name What happens
  /// @{

  /// An action, or an intent as JSON: {"action": "...", "data": "package:com.example", "extras": [{"key": "...",
  /// "type": "int", "value": 1}]}. How many registrations it was for.
  int broadcast(const std::string& intent);
  /// Up to seven texts for the client that holds the namespace.
  void directive(const std::string& nspace, std::vector<std::string> texts);
  /// What the events that the client sends from now on result in, "TIMEOUT" or a number, and when.
  void eventResult(const std::string& result, std::chrono::milliseconds delay = {});
  /// @}

  /// @name What goes wrong
  /// Until repair(). Of a service, "delegate", or of one of its methods, "getDeviceName".
  /// @{
  void kill(const std::string& service);     ///< it stays dead until it is restarted
  void restart(const std::string& service);  ///< killing it first when it lives
  /// Does not answer.
  void hang(const std::string& service, const std::string& method = kEveryMethod);
  /// Answers so much later.
  void delay(const std::string& service, std::chrono::milliseconds by, const std::string& method = kEveryMethod);
  /// Answers with an exception in place of the result.
  void exception(const std::string& service, const std::string& method = kEveryMethod);
  /// Fails calls with the code, a negated errno value.
  void error(const std::string& service, int code, const std::string& method = kEveryMethod);
  /// Ends its replies after so many bytes.
  void truncate(const std::string& service, unsigned bytes, const std::string& method = kEveryMethod);
  /// Closes the connection of the caller in place of an answer; `calls` times, or always.
  void drop(const std::string& service, const std::string& method = kEveryMethod, int calls = 0);
  /// Dies in the middle of each period and is back at its end; `times`, or until repair().
  void flap(const std::string& service, std::chrono::milliseconds period, int times = 0);
  /// Ends all that goes wrong with the service but its death.
  void repair(const std::string& service);
  /// From now on another process, of which there is nothing else here, has the directives of the namespace: the client
  /// cannot register for them, and directive() finds nobody. Refused while the client has them.
  void holdNamespace(const std::string& nspace);
  /// That process has ended.
  void releaseNamespace(const std::string& nspace);
  /// @}

  /// @name Time
  /// @{

  /// Returns once everything sent has been delivered, every callback has returned and every rebind that can succeed
  /// has, and every act has run; a rebind that waits for a dead service stays where it is, and so does the first bind
  /// of one that start() has left behind. False after an hour of virtual time without such an end.
  bool settle();
  /// Lets time pass, with all that is due in it.
  void advance(std::chrono::nanoseconds duration);
  /// Runs `act` when elapsed() has come to `time`, also inside calls of the client that wait, for a service or in a
  /// call that hangs:
  ///
  ///     device.kill("delegate");
  ///     device.at(50ms, [&] { device.restart("delegate"); });
  ///     client.initialize();                            // has the service after its first retry
  ///     device.at(1s, [&] { client.shutdown(); });      // interrupts what the test then waits for
  ///
  /// Each act has a thread of its own, which is the test's own as far as the client is concerned. It may use the
  /// client, shutdown() included, and the device, at() included, but not settle() and advance(), and must not wait for
  /// the test's thread. Time stands still while it runs, but for calls of the client in which it has to wait itself.
  ///
  /// Acts begin in the order of their times, those of one time in the order in which they were asked for, and each when
  /// the one before has ended or waits inside the client. One whose time is over begins as soon as a thread waits for
  /// time, also without any passing. settle() goes on until all have run. What an act throws, the next settle() or
  /// advance() throws; if there is none, the end of the device says it on standard error. That waits for an act that
  /// runs; acts that are not due by then are dropped.
  ///
  /// Throws std::invalid_argument for an empty act.
  void at(std::chrono::nanoseconds time, std::function<void()> act);

  /// The time that has passed since the device was made.
  std::chrono::nanoseconds elapsed() const;
  /// @}

  /// @name What the client did
  /// All of it, the oldest first.
  /// @{

  /// The calls that it made.
  std::vector<Call> calls() const;
  /// Those of one method.
  std::vector<Call> calls(const std::string& service, const std::string& method) const;
  /// What it was told.
  std::vector<Notification> notifications() const;
  /// What it is registered for now.
  std::vector<Registration> registrations() const;
  /// @}

 private:
  class LocalDevice;

  std::unique_ptr<LocalDevice> m_device;
};

}  // namespace orvel::testing
