// vesk_peer NAME: serves NAME as Peer.h describes until it is killed. Writes "serves" once it does, and "hangs" for
// each kHang that it has taken.
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include <sys/resource.h>
#include <unistd.h>

#include "support/Peer.h"
#include "support/Vesk.h"
#include "vesk/vesk_service.h"

namespace orvel::test {
namespace {

struct {
  void* runtime = nullptr;
  std::vector<vesk_remote*> kept;
  std::vector<vesk_deferred*> unanswered;
  std::map<std::string, vesk_handle> names;
} peer;

vesk_handle* look_up(const std::string& name) {
  vesk_handle& handle = peer.names[name];
  if (vesk_handle_is_valid(peer.runtime, &handle) == 0) {
    vesk_binder_servicemanager_get(peer.runtime, name.c_str(), &handle);
  }
  return &handle;
}

PayloadPtr payload_of(std::int32_t number) {
  PayloadPtr payload(vesk_payload_alloc());
  vesk_write_i32(payload.get(), number);
  return payload;
}

int write_outcome(vesk_payload* reply, int error, vesk_buffer* answer) {
  vesk_write_i32(reply, error == 0 ? 0 : 1);
  return error == 0 ? vesk_write_i32(reply, vesk_read_i32(answer)) : 0;
}

// The completion of kAsk; `context` is the answer that is still owed.
void answer_ask(void* context, int error, vesk_buffer* answer) {
  const PayloadPtr reply(vesk_payload_alloc());
  write_outcome(reply.get(), error, answer);
  vesk_deferred_answer(static_cast<vesk_deferred*>(context), 0, reply.get());
}

void forget(void*, vesk_remote* gone) {
  peer.kept.erase(std::find(peer.kept.begin(), peer.kept.end(), gone));
  vesk_remote_release(gone);
}

int serve(void*, vesk_endpoint*, unsigned code, vesk_identity* caller, vesk_buffer* request, vesk_payload* reply) {
  for (; code != kHang && !peer.unanswered.empty(); peer.unanswered.pop_back()) {
    vesk_deferred_answer(peer.unanswered.back(), 0, payload_of(-1).get());
  }
  switch (code) {
    case kEcho:
      while (vesk_buffer_remaining(request) > 0) vesk_write_i32(reply, vesk_read_i32(request));
      return 0;
    case kHang:
      peer.unanswered.push_back(vesk_request_defer(caller));
      if (vesk_remote* remote = vesk_read_endpoint(request)) {
        peer.kept.push_back(remote);
        vesk_remote_on_gone(remote, forget, nullptr);
      }
      std::puts("hangs");
      return 0;
    case kDie:
      // What it forked lives on for longer than any call, and must not look like the peer.
      if (::fork() == 0) {
        for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) ::close(stream);
        ::sleep(10);
        ::_exit(0);
      }
      return std::raise(SIGKILL);
    case kKeep:
      peer.kept.push_back(vesk_read_endpoint(request));
      return vesk_write_i32(
          reply, peer.kept.size() > 1 && vesk_remote_equal(peer.kept.end()[-2], peer.kept.back()) != 0 ? 1 : 0);
    case kLetGo:
      vesk_remote_release(peer.kept.back());
      peer.kept.pop_back();
      return 0;
    case kSend: {
      const int count = vesk_read_i32(request);
      int sent = 0;
      while (sent < count && vesk_remote_call_oneway(peer.kept.back(), kNews, payload_of(sent).get()) == 0) ++sent;
      return vesk_write_i32(reply, sent);
    }
    case kAskAll: {
      const int count = vesk_read_i32(request);
      const auto ignore = [](void*, int, vesk_buffer*) {};
      for (int n = 0; n < count; ++n) {
        if (vesk_remote_call(peer.kept.back(), kNews, payload_of(n).get(), 60'000, ignore, nullptr) != 0) return 1;
      }
      return 0;
    }
    case kAsk:
    case kAskInHaste: {
      const PayloadPtr question = payload_of(vesk_read_i32(request));
      vesk_deferred* owed = vesk_request_defer(caller);
      const unsigned limit_ms = code == kAsk ? 60'000 : 1;
      const int error = vesk_remote_call(peer.kept.back(), kNews, question.get(), limit_ms, answer_ask, owed);
      if (error != 0) answer_ask(owed, error, nullptr);
      return 0;
    }
    case kSendToName:
    case kAskName: {
      const PayloadPtr question = payload_of(vesk_read_i32(request));
      const BufferPtr answer(vesk_buffer_alloc());
      vesk_handle* handle = look_up(read_ascii(request));
      if (code == kSendToName) return vesk_call_oneway(peer.runtime, handle, kNews, question.get());
      return write_outcome(reply, vesk_call(peer.runtime, handle, kNews, question.get(), answer.get()), answer.get());
    }
    case kNews:
      return vesk_write_i32(reply, vesk_read_i32(request) + 100);
    default:
      return 1;
  }
}

const vesk_endpoint_fn kFunctions{serve,
                                  [](void*, vesk_endpoint*, unsigned, vesk_identity*, vesk_buffer*) { return 1; },
                                  [](void*, vesk_endpoint*) { return 0; }, [](void*, vesk_endpoint*) { return 0; }};

int run_peer(const char* name) {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  const rlimit files{1024, 1024};  // as many connections as it takes, few enough for a test to reach that
  vesk_endpoint endpoint{&kFunctions, nullptr};
  if (::setrlimit(RLIMIT_NOFILE, &files) != 0) return 1;
  if (vesk_serve_device(&peer.runtime) != 0 || vesk_service_register(peer.runtime, name, &endpoint) != 0) return 1;
  std::puts("serves");
  return vesk_run_loop(peer.runtime);
}

}  // namespace
}  // namespace orvel::test

int main(int argc, char** argv) {
  return argc == 2 ? orvel::test::run_peer(argv[1]) : 2;
}
