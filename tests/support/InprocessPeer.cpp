#include <utility>
#include <vector>

#include "support/Peer.h"
#include "support/Vesk.h"

namespace orvel::test {
namespace {

// One for all peers: constructed with the first, gone with the program.
InprocessVesk& the_vesk() {
  static auto* const vesk = new InprocessVesk;
  return *vesk;
}

Reply outcome(std::future<Reply> answer) {
  const Reply reply = answer.get();
  return {reply.result != 0 ? Bytes().i32(1) : Bytes().i32(0).append(reply.bytes)};
}

}  // namespace

struct Peer::Form {
  std::vector<vesk_endpoint*> kept;

  Reply answer(const Transaction& call) {
    InprocessVesk& vesk = the_vesk();
    const BufferPtr request = buffer_of(call.request);
    const int number = vesk_read_i32(request.get());
    switch (call.code) {
      case kEcho:
        return {call.request};
      case kDie:
        vesk.kill_service(call.service);
        return {};
      case kKeep:
        kept.push_back(call.endpoints.at(0));
        return {Bytes().i32(kept.size() > 1 && kept.end()[-2] == kept.back() ? 1 : 0)};
      case kLetGo: {
        vesk_endpoint* endpoint = kept.back();
        kept.pop_back();
        if (kept.empty() || kept.back() != endpoint) vesk.release_endpoint(endpoint);
        return {};
      }
      case kSend:
        for (int n = 0; n < number; ++n) vesk.send(kept.back(), kNews, Bytes().i32(n));
        return {call.request};
      case kAskAll:
        for (int n = 0; n < number; ++n) vesk.call(kept.back(), kNews, Bytes().i32(n));
        return {};
      case kAsk:
        return outcome(vesk.call(kept.back(), kNews, Bytes().i32(number)));
      case kSendToName:
        vesk.send(read_ascii(request.get()), kNews, Bytes().i32(number));
        return {};
      case kAskName:
        return outcome(vesk.call(read_ascii(request.get()), kNews, Bytes().i32(number)));
      default:
        return {{}, -EIO};
    }
  }
};

Peer::Peer(std::string name) : m_name(std::move(name)), m_form(std::make_unique<Form>()) {
  // A call of kHang stops before it reaches the handler.
  the_vesk().hold_calls(m_name, kHang);
  the_vesk().add_service(m_name, [form = m_form.get()](const Transaction& call) { return form->answer(call); });
}

Peer::~Peer() {
  kill();
}

void Peer::kill() {
  the_vesk().kill_service(m_name);
}

void Peer::wait_for_hanging_call() {
  the_vesk().wait_for_held_calls(m_name);
}

void Peer::pass_call_limit() {
  the_vesk().expire_calls(m_name);
}

}  // namespace orvel::test
