// What the host runtime promises beyond the contract: peers that break every rule harm nobody else, and nothing is left
// behind.
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <iterator>
#include <string>
#include <utility>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "VeskTest.h"
#include "support/BusMessage.h"
#include "support/Peer.h"
#include "support/Process.h"
#include "support/RunLoop.h"
#include "support/Vesk.h"
#include "vesk/host/Support.h"
#include "vesk/vesk_service.h"

namespace orvel::test {
namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using vesk::check_errno;
using vesk::UniqueFd;

constexpr int kLimitMs = 20'000;  // for what the other side does at once

class HostRuntime : public VeskTest {
 protected:
  [[nodiscard]] std::string socket_of(const char* name) const {
    return m_directory / fs::read_symlink(m_directory / name);
  }

  // A service of this test's own making.
  UniqueFd listen_as(const std::string& name, int backlog) {
    UniqueFd socket(check_errno(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    (m_directory / (".socket-" + name)).string().copy(address.sun_path, sizeof(address.sun_path) - 1);
    check_errno(::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)));
    check_errno(::listen(socket.get(), backlog));
    fs::create_symlink(".socket-" + name, m_directory / name);
    return socket;
  }
  static BusLine accept(const UniqueFd& listener) {
    return BusLine(UniqueFd(check_errno(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC))));
  }

  // Those who had a connection before are served as ever, and so are those who come now.
  void expect_others_are_served(const std::string& after) {
    EXPECT_EQ(call(m_handle, kEcho, 1).numbers, Numbers{1}) << after;
    const vesk_handle now = lookup();
    EXPECT_EQ(call(now, kEcho, 2).numbers, Numbers{2}) << after;
    unbind(now);
  }

  const fs::path m_directory{vesk_runtime_directory()};
};

TEST_F(HostRuntime, AFullServiceShutsOutOnlyTheProcessThatFillsIt) {
  const Peer other("other");
  const vesk_handle through_other = lookup(other.name());
  const std::size_t before = m_handles.size();
  vesk_handle handle{};
  int error = 0;
  while (m_handles.size() < 300 && (error = vesk_binder_servicemanager_get(m_runtime, m_peer.name(), &handle)) == 0) {
    m_handles.push_back(handle);
    EXPECT_EQ(call(handle, kEcho, 1).numbers, Numbers{1}) << "bound and dead";
  }
  EXPECT_EQ(error, -EAGAIN) << m_handles.size();
  EXPECT_TRUE(BusLine::to(socket_of(m_peer.name())).is_dropped(kLimitMs));
  EXPECT_EQ(call(m_handle, kEcho, 3).numbers, Numbers{3});
  EXPECT_EQ(call(through_other, kAskName, 4, m_peer.name()).numbers, (Numbers{0, 104}));
  for (std::size_t n = before; n < m_handles.size(); ++n) unbind(m_handles[n]);
  expect_others_are_served("a full service");
}

TEST_F(HostRuntime, AReceiverThatDoesNotReadLosesOnlyWhatItsSenderIsTold) {
  constexpr int kMore = 1'000'000;  // than fit into the queue and the socket's buffer
  Listener& inbox = listener("message");
  keep(m_handle, inbox);
  const int sent = call(m_handle, kSend, kMore).numbers.at(0);
  EXPECT_TRUE(sent > 100 && sent < kMore) << sent;
  expect_others_are_served("messages that wait");
  Lines expected;
  for (int n = 0; n < sent; ++n) expected.push_back("message " + std::to_string(n));
  expected.emplace_back("message -1");
  const RunLoop loop(m_runtime);
  EXPECT_TRUE(eventually([&] {
    return call(m_handle, kAsk, -1).numbers == Numbers{0, 99};
  })) << "its queue has room again";
  EXPECT_EQ(m_log.wait_for(1), expected);
}

TEST_F(HostRuntime, AnAnswerThatComesAfterItsLimitIsIgnored) {
  keep(m_handle, listener("question"));
  EXPECT_EQ(call(m_handle, kAskInHaste, 1).numbers, Numbers{1}) << "nobody is in the loop";
  const RunLoop loop(m_runtime);
  EXPECT_EQ(call(m_handle, kAsk, 2).numbers, (Numbers{0, 102})) << "the first question's answer came before";
  EXPECT_EQ(call(m_handle, kAsk, 3).numbers, (Numbers{0, 103})) << "and has not ended the connection";
  EXPECT_EQ(m_log.wait_for(3), (Lines{"question 1", "question 2", "question 3"}));
}

TEST_F(HostRuntime, AServiceThatAnswersWithNonsenseFailsOnlyItsOwnCalls) {
  const std::pair<const char*, void (*)(BusMessage & answer)> rows[] = {
      {"nothing, and a hang-up", nullptr},
      {"another message", [](BusMessage& answer) { answer = bus_release(1, 1); }},
      {"another type",
       [](BusMessage& answer) {
         answer.signature = "s";
         answer.body = BusBody().text("text").bytes();
       }},
      {"an error with the body of a success",
       [](BusMessage& answer) {
         answer.type = kBusError;
         answer.error_name = "a.b";
       }},
  };
  const UniqueFd listener = listen_as("rogue", 8);
  for (const auto& [what, spoil] : rows) {
    const vesk_handle rogue = lookup("rogue");
    auto result = std::async(std::launch::async, [&] { return call(rogue, kEcho).error; });
    BusLine service = accept(listener);
    service.send(kBusAnswer);
    auto request = service.receive(kLimitMs);
    while (request && request->member != "Call") request = service.receive(kLimitMs);
    ASSERT_TRUE(request) << what;
    BusMessage answer = bus_answer(request->serial, 0, "");
    if (spoil != nullptr) spoil(answer);
    spoil == nullptr ? service.close() : void(service.send(answer.bytes()));
    EXPECT_TRUE(fails_at_once(result.get())) << what;
    EXPECT_NE(call(rogue, kEcho).error, 0) << what;
    expect_others_are_served(what);
  }
}

TEST_F(HostRuntime, AOneWayQueueThatWasFullTakesMessagesAgainAndLosesNone) {
  const UniqueFd listener = listen_as("reader", 8);
  vesk_handle handle = lookup("reader");
  BusLine reader = accept(listener);
  reader.send(kBusAnswer);
  const PayloadPtr request(vesk_payload_alloc());
  for (int n = 0; n < 4096; ++n) vesk_write_i32(request.get(), n);
  int sent = 0;
  int received = 0;
  const auto send = [&] { return vesk_call_oneway(m_runtime, &handle, kNews, request.get()) == 0 && ++sent > 0; };
  const auto read_all = [&] {
    while (const auto message = reader.receive(0)) received += message->member == "Call" ? 1 : 0;
    return received;
  };
  while (send()) {
  }
  EXPECT_EQ(received, 0);
  // No thread is in the loop, so that only the sender itself can notice that the reader reads again.
  EXPECT_TRUE(eventually([&] { return read_all() > 0 && send(); }));
  const RunLoop loop(m_runtime);
  EXPECT_TRUE(eventually([&] { return read_all() == sent; })) << received << " of " << sent;
}

TEST_F(HostRuntime, AServiceThatSaysNothingBlocksOnlyItsOwnCallers) {
  const UniqueFd socket = listen_as("silent", 0);
  const vesk_handle silent = lookup("silent");  // fills the backlog
  EXPECT_NE(bind("silent", listener("refused")), 0) << "a bind never blocks";
  auto result = std::async(std::launch::async, [&] { return call(silent, kEcho).error; });
  expect_others_are_served("a service that says nothing");
  EXPECT_EQ(result.get(), -ETIMEDOUT);
}

TEST_F(HostRuntime, DeathsLeaveNothingBehind) {
  const auto descriptors = [] { return std::distance(fs::directory_iterator("/proc/self/fd"), {}); };
  const RunLoop loop(m_runtime);
  keep(m_handle, listener("first"));
  call(m_handle, kAsk, 1);  // with the first callback channel the event loop gets a descriptor that it keeps
  const auto before = descriptors();
  for (int round = 0; round < 10; ++round) {
    Peer mortal("mortal");  // takes the place of the dead one
    Listener& mourner = listener("mortal");
    vesk_handle handle{};
    ASSERT_EQ(vesk_binder_servicemanager_get(m_runtime, mortal.name(), &handle), 0);
    keep(handle, mourner);
    link(handle, mourner);
    mortal.kill();
    EXPECT_TRUE(mourner.has(0));
    EXPECT_NE(call(handle, kEcho).error, 0);
  }
  EXPECT_TRUE(eventually([&] { return descriptors() == before; })) << descriptors() << " instead of " << before;
}

TEST_F(HostRuntime, NamesAreEscapedAndBounded) {
  const RunLoop loop(m_runtime);
  Listener& inbox = listener("message");
  const std::string longest(255, 'n');
  for (const std::string& name : {"../outside"s, "a/b"s, ".device"s, "."s, ".."s, "100%"s, "\xC3\xBC"s, longest}) {
    EXPECT_EQ(publish(name.c_str(), inbox), 0) << name;
    EXPECT_EQ(call(lookup(name.c_str()), kNews, 1).numbers, Numbers{101}) << name;
  }
  EXPECT_FALSE(fs::exists(fs::symlink_status(m_directory.parent_path() / "outside")));
  EXPECT_EQ(publish("", inbox), -EINVAL);
  EXPECT_EQ(publish((longest + 'n').c_str(), inbox), -ENAMETOOLONG);
  EXPECT_EQ(inbox.references, 8);
}

TEST_F(HostRuntime, AMessageThatIsTooLargeFailsAtItsSenderOnly) {
  constexpr std::size_t kMostUnits = 4'194'301;  // with the length and the terminator exactly 8 MiB
  for (const auto& [units, error] : {std::pair{kMostUnits, 0}, std::pair{kMostUnits + 1, -EMSGSIZE}}) {
    const PayloadPtr request(vesk_payload_alloc());
    const BufferPtr reply(vesk_buffer_alloc());
    EXPECT_EQ(vesk_write_utf16_cstring(request.get(), std::string(units, 'u').c_str()), 0);
    EXPECT_EQ(vesk_call(m_runtime, &m_handle, kNews, request.get(), reply.get()), error);
  }
  EXPECT_EQ(call(m_handle, kEcho, 6).numbers, Numbers{6});
}

TEST_F(HostRuntime, ItsOwnNameAnswersEveryThreadButTheRunLoopsAndThoseWhoComeAtOnceInTurn) {
  EXPECT_EQ(publish("contract.own", listener("own")), 0);
  const vesk_handle handle = lookup("contract.own");
  for (int n = 0; n < 200; ++n) lookup("contract.own");  // no thread is in the loop yet
  const RunLoop loop(m_runtime);
  keep(m_handle, listener("message", [&](int) { EXPECT_EQ(call(handle, kNews, 1).error, -EDEADLK); }));
  EXPECT_EQ(call(m_handle, kAsk, 2).numbers, (Numbers{0, 102}));
  EXPECT_EQ(call(handle, kNews, 3).numbers, Numbers{103});
}

TEST_F(HostRuntime, ACallSaysWhichThreadMakesItAndOneThatDoesNotIsAsGood) {
  static const vesk_endpoint_fn kTellThread{
      [](void*, vesk_endpoint*, unsigned, vesk_identity* caller, vesk_buffer*, vesk_payload* reply) {
        return vesk_write_i32(reply, vesk_identity_thread(caller));
      },
      Listener::call_oneway, Listener::acquire, Listener::release};
  Listener& own = listener("own");
  own.endpoint.fn = &kTellThread;
  ASSERT_EQ(publish("contract.own", own), 0);
  const RunLoop loop(m_runtime);
  const vesk_handle handle = lookup("contract.own");
  const auto expect_this_thread = [&] { EXPECT_EQ(call(handle, kNews).numbers, Numbers{::gettid()}); };
  expect_this_thread();
  std::async(std::launch::async, expect_this_thread).get();
  for (int n = 0; n < 2; ++n) expect_this_thread();
  for (const char* sender : {"", ":1.0", ":1.-5", ":1.7x", ":1.7.7", ":1.99999999999", ":2.7", "org.example.Name"}) {
    BusLine line = BusLine::to(socket_of("contract.own"));
    BusMessage request = bus_call("contract.own", 2, kNews, "");
    if (*sender != '\0') request.sender = sender;
    line.send(kBusHello + bus_open("contract.own").bytes() + request.bytes());
    const auto answer = line.receive(kLimitMs);
    ASSERT_TRUE(answer) << sender;
    EXPECT_EQ(answer->body, bus_answer(2, 0, std::string(4, '\0')).body) << sender;
  }
}

TEST_F(HostRuntime, EverythingFailsInAForkedChild) {
  const auto child = [this] {
    void* runtime = nullptr;
    const bool fails = vesk_get_runtime(&runtime) == -EPERM && call(m_handle, kEcho).error != 0 &&
                       vesk_shutdown(m_runtime) == -EPERM && vesk_run_loop(m_runtime) == -EPERM;
    ::_exit(fails ? 0 : 1);
  };
  EXPECT_EXIT(child(), testing::ExitedWithCode(0), "");
  EXPECT_EQ(call(m_handle, kEcho, 7).numbers, Numbers{7}) << "the parent goes on";
}

TEST_F(HostRuntime, WhatTheDirectoryLosesIsMadeAgain) {
  const fs::path elsewhere = m_directory.string() + ".old";
  const RunLoop loop(m_runtime);
  std::size_t heard = 0;
  for (const bool with_itself : {true, false}) {
    const std::string late = with_itself ? "late" : "later";
    EXPECT_EQ(publish("contract.kept", listener("kept")), 0);
    EXPECT_EQ(publish("contract.withdrawn", listener("withdrawn")), 0);
    link(lookup("contract.withdrawn"), listener("withdrawn"));
    EXPECT_EQ(bind(late.c_str(), listener("late")), 0);
    if (with_itself) {
      fs::rename(m_directory, elsewhere);
    } else {
      for (const auto& entry : fs::directory_iterator(m_directory)) fs::remove(entry);
    }
    EXPECT_EQ(vesk_service_withdraw(m_runtime, "contract.withdrawn"), 0);
    EXPECT_EQ(m_log.wait_for(++heard).back(), "withdrawn died");

    EXPECT_TRUE(eventually([&] { return vesk_get_runtime(&m_runtime) == 0; }));
    expect_others_are_served("the loss");
    const Peer late_peer(late);
    EXPECT_EQ(m_log.wait_for(++heard).back(), "bound late");
    EXPECT_TRUE(eventually([&] { return call(m_handle, kAskName, 1, "contract.kept").numbers == Numbers{0, 101}; }));
    m_log.wait_for(++heard);
  }
  fs::remove_all(elsewhere);
}

TEST(HostRuntimeDeathTest, WhatTheEnvironmentSaysIsRefusedOrReplacedWithALineThatNamesIt) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";  // a process of its own: it is read once in each
  const std::string parent = std::getenv("ORVEL_RUNTIME_DIR");
  const struct {
    std::string value;  // of the directory below that of this process, or else of the call limit
    const char* set_up;
    const char* problem;
    bool may_serve = false;
  } rows[] = {
      {"/absent", ":", "/absent: it does not exist", true},
      {"/empty", "mkdir -m 700 empty", "/empty: nothing serves", true},
      {"/absent/within", ":", "/absent/within: it does not exist"},
      {"/readable", "mkdir -m 750 readable", "/readable: .*mode 0700"},
      {"/writable", "mkdir -m 702 writable", "/writable: .*mode 0700"},
      {"/anothers", "mkdir -m 700 anothers; chown 1:1 anothers", "/anothers: it must belong to this user"},
      {"/link", "ln -s . link", "/link: it is a symbolic link, which is not followed"},
      {"/file", "touch file", "/file: it is not a directory"},
      {'/' + std::string(300, 'd'), ":", "/ddd.*: its path is too long"},
      {"0", ":", "_MS=0 is not a positive number of milliseconds; using 30000", true},
      {"13000000000000", ":", "_MS=13000000000000 is more than a day; using 86400000", true},
      {"99999999999999999999", ":", "is more than a day; using 86400000", true},
  };
  for (const auto& row : rows) {
    if (row.value == "/anothers" && ::geteuid() != 0) continue;  // no other user can give a directory away
    const bool is_limit = row.value[0] != '/';
    const auto child = [&] {
      if (run({"/bin/sh", "-c", "cd " + parent + " && " + row.set_up}).status != 0) std::exit(2);
      ::setenv(is_limit ? "ORVEL_CALL_TIMEOUT_MS" : "ORVEL_RUNTIME_DIR",
               (is_limit ? row.value : parent + row.value).c_str(), 1);
      void* runtime = nullptr;
      if (vesk_get_runtime(&runtime) == 0 || runtime != nullptr) std::exit(1);
      std::exit((vesk_serve_device(&runtime) == 0) == row.may_serve ? 0 : 3);
    };
    EXPECT_EXIT(child(), testing::ExitedWithCode(0), row.problem);
  }
}

TEST_F(HostRuntime, OtherUsersAreRefusedBothWays) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can act as another user";
  const auto as_another = [](const auto& act) {
    check_errno(::seteuid(1));
    act();
    check_errno(::seteuid(0));
  };
  const UniqueFd listener = listen_as("foreign", 8);
  as_another([&] { check_errno(::listen(listener.get(), 8)); });
  vesk_handle handle{};
  testing::internal::CaptureStderr();
  EXPECT_EQ(vesk_binder_servicemanager_get(m_runtime, "foreign", &handle), -EPERM);
  EXPECT_NE(
      testing::internal::GetCapturedStderr().find("foreign in " + m_directory.string() + " is served by another user"),
      std::string::npos);
  // Even where the doors stand open.
  const std::string socket = socket_of(m_peer.name());
  fs::permissions(m_directory, fs::perms(0711));
  fs::permissions(socket, fs::perms(0777));
  as_another([&] { EXPECT_TRUE(BusLine::to(socket).is_dropped(kLimitMs)); });
  fs::permissions(m_directory, fs::perms(0700));
  expect_others_are_served("another user");
}

TEST_F(HostRuntime, AProgramThatIsStartedInheritsNothing) {
  EXPECT_EQ(publish("contract.inherit", listener("own")), 0);
  EXPECT_EQ(bind("contract.absent", listener("absent")), 0);
  const RunLoop loop(m_runtime);
  keep(m_handle, listener("message"));
  EXPECT_EQ(call(m_handle, kAsk, 1).numbers, (Numbers{0, 101}));
  const auto output_of = [](const char* command) { return run({"/bin/sh", "-c", command}).output; };
  EXPECT_TRUE(eventually([&] {
    const std::string blocked = output_of(
        "cd /proc/$PPID/task; sed -n 's/^SigBlk:.//p' $(grep -l vesk-watch */comm | sed s/comm/status/) </dev/null");
    return !blocked.empty() && (std::stoull(blocked, nullptr, 16) & (1U << (SIGTERM - 1))) != 0;
  })) << "a thread of the library takes the program's signals";
  // What this program inherited itself is not a socket, event loop or watch of the runtime's directory.
  const std::string open = output_of("exec </dev/null 2>/dev/null; ls -l /proc/self/fd");
  EXPECT_NE(open, "");
  for (const std::string what : {"socket:", "anon_inode:", vesk_runtime_directory()}) {
    EXPECT_EQ(open.find(what), std::string::npos) << open;
  }
}

}  // namespace
}  // namespace orvel::test
