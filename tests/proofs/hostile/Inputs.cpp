#include "Inputs.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cstring>

namespace orvel::hostile {

using namespace std::string_literals;

const ServiceName kDelegate{"delegate", "orvel_delegate", "com.quarlo.orveldelegate.IDelegateService"};
const ServiceName kPower{"power", "com.quarlo.orvel.powermanager",
                         "com.quarlo.orveldelegate.powermanager.IPowerManagerService"};

std::int32_t Answer::word(std::size_t index) const {
  std::int32_t value = 0;
  if (bytes.size() < (index + 1) * sizeof(value))
    throw Broken("an answer of " + std::to_string(bytes.size()) + " bytes");
  std::memcpy(&value, bytes.data() + index * sizeof(value), sizeof(value));
  return value;
}

// ---- Target ----

Line& Target::connect(const ServiceName& service) {
  vesk::UniqueFd socket(vesk::check_errno(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  (m_directory + '/' + service.name).copy(address.sun_path, sizeof(address.sun_path) - 1);
  vesk::check_errno(::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)));
  return keep(Line(std::move(socket)));
}

Line& Target::open(const ServiceName& service) {
  Line& line = connect(service);
  line.send(kHello + open_of(service).bytes());
  // Descriptors belong to messages: what comes with the handshake ends the connection.
  if (!line.finish_handshake(m_limit_ms)) throw Broken("no answer to a good handshake");
  return line;
}

void Target::expect_dropped(Line& line) const {
  if (!line.is_dropped(m_limit_ms)) throw Broken("the connection was not closed");
}

Answer Target::expect_answer(Line& line, std::uint32_t serial) const {
  while (const auto message = line.receive(m_limit_ms)) {
    if (message->type != kReturn || message->reply_serial != serial) continue;
    std::int32_t head[2] = {};
    if (message->body.size() < sizeof(head)) break;
    std::memcpy(head, message->body.data(), sizeof(head));
    return {head[0], message->body.substr(sizeof(head))};
  }
  throw Broken("no answer");
}

// ---- Visit ----

constexpr int kVisitMs = 5000;  // longer than any client of these tests waits

std::optional<Received> Visit::next_call() {
  waits = true;
  auto message = line.receive(kVisitMs);
  while (message && (message->type != kCall || message->member != "Call")) message = line.receive(kVisitMs);
  waits = false;
  return message;
}

void Visit::answer(const Received& call, std::int32_t status, std::string_view bytes) {
  line.send(answer_of(call.serial, status, bytes).bytes());
}

std::optional<Line> Visit::wait_for_channel() {
  while (const auto call = next_call()) {
    auto& descriptors = line.received_descriptors();
    if (!descriptors.empty()) {
      Line channel(std::move(descriptors.front()));
      descriptors.clear();
      channel.send(kAnswer);
      answer(*call, 0, Words().i32(0).bytes());
      return channel;
    }
    answer(*call, 0, Words().i32(0).text("Rogue").bytes());
  }
  return std::nullopt;
}

void Visit::serve_well() {
  while (const auto call = next_call()) answer(*call, 0, Words().i32(0).text("Rogue").bytes());
}

void Visit::serve_nothing() {
  waits = true;
  line.is_dropped(kVisitMs);
}

// ---- Messages ----

Message call_of(const ServiceName& service, std::uint32_t serial, std::uint32_t code, std::string_view bytes) {
  Message call;
  call.serial = serial;
  call.path = path_of(service.name);
  call.member = "Call";
  call.signature = "uay";
  call.body = Body().u32(code).array(bytes).bytes();
  return call;
}

Message call_of(const ServiceName& service, std::uint32_t serial, std::uint32_t code, std::string_view bytes,
                const std::vector<std::uint64_t>& endpoints, bool channel) {
  Message call = call_of(service, serial, code, bytes);
  call.signature = channel ? "uayath" : "uayat";
  Body body;
  body.u32(code).array(bytes).array(endpoints);
  if (channel) {
    body.u32(0);
    call.descriptors = 1;
  }
  call.body = body.bytes();
  return call;
}

Message open_of(const ServiceName& service) {
  Message open;
  open.path = path_of(service.name);
  open.member = "Open";
  open.flags = kNoReplyExpected;
  return open;
}

Words request_to(const ServiceName& service) {
  return Words().i32(0).i32(-1).i32(0x53595354).text(service.descriptor);
}

Message answer_of(std::uint32_t to, std::int32_t status, std::string_view bytes) {
  Message answer;
  answer.type = kReturn;
  answer.flags = kNoReplyExpected;
  answer.serial = to + 1000;
  answer.interface.reset();
  answer.reply_serial = to;
  answer.signature = "iay";
  answer.body = Body().u32(static_cast<std::uint32_t>(status)).array(bytes).bytes();
  return answer;
}

Line send_with_channel(Line& line, const Message& call, bool greeted) {
  int ends[2];
  vesk::check_errno(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
  Line mine{vesk::UniqueFd(ends[0])};
  const vesk::UniqueFd theirs(ends[1]);
  if (greeted) mine.send(kHello);
  line.send(call.bytes(), {theirs.get()});
  return mine;
}

std::string mutated(std::string text, std::mt19937_64& random) {
  const auto below = [&](std::size_t limit) {
    return static_cast<std::size_t>(random() % std::max<std::size_t>(limit, 1));
  };
  for (std::size_t changes = 1 + below(6); changes > 0 && !text.empty(); --changes) {
    const std::size_t at = below(text.size());
    switch (below(4)) {
      case 0:
        text[at] = static_cast<char>(random());
        break;
      case 1:
        text[at] = static_cast<char>(text[at] ^ (1 << below(8)));
        break;
      case 2:
        text.erase(at, 1 + below(8));
        break;
      default:
        text.insert(at, text.substr(below(text.size()), 1 + below(16)));
    }
  }
  return text;
}

const std::vector<std::pair<const char*, std::string>>& nonsense() {
  static const std::vector<std::pair<const char*, std::string>> texts = {
      {"a-web-request", "GET / HTTP/1.1\r\nHost: here\r\n\r\n"},
      {"no-zero-first", "AUTH EXTERNAL\r\nDATA\r\nNEGOTIATE_UNIX_FD\r\nBEGIN\r\n"},
      {"zeros", std::string(4096, '\0')},
      {"ones", std::string(4096, '\xFF')},
      {"empty-lines", "\0\r\n\r\n\r\n\r\n"s},
      {"line-feeds-only", "\0AUTH EXTERNAL\nDATA\nBEGIN\n"s},
      {"an-endless-line", "\0AUTH EXTERNAL "s + std::string(100'000, 'a')},
      {"another-mechanism", "\0AUTH KERBEROS_V4 6162\r\n"s},
      {"anonymous", "\0AUTH ANONYMOUS\r\nBEGIN\r\n"s},
      {"begin-at-once", "\0BEGIN\r\n"s},
      {"begin-twice", kHello + "BEGIN\r\n"},
      {"cancelled", "\0AUTH EXTERNAL\r\nCANCEL\r\nBEGIN\r\n"s},
      {"an-error", "\0ERROR \"no\"\r\n"s},
      {"not-hexadecimal", "\0AUTH EXTERNAL zz\r\nDATA\r\nBEGIN\r\n"s},
      {"half-a-byte", "\0AUTH EXTERNAL 3\r\nDATA\r\nBEGIN\r\n"s},
      {"zeros-in-a-line", "\0AUTH EXT\0ERNAL\r\n"s},
      {"the-other-side's-part", kAnswer},
      {"text-after-the-handshake", kHello + "hello, is anybody there? " + std::string(64, '?')},
      {"zeros-after-the-handshake", kHello + std::string(256, '\0')},
      {"ones-after-the-handshake", kHello + std::string(256, '\xFF')},
  };
  return texts;
}

}  // namespace orvel::hostile
