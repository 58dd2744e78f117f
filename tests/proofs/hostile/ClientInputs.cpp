// What clients do to the device that breaks the rules of the connection.
#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <thread>

#include "Inputs.h"
#include "Process.h"

namespace orvel::hostile {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::string_literals;

constexpr std::uint32_t kIsInteractive = 1;
constexpr std::uint32_t kSendBroadcast = 27;
constexpr std::uint32_t kRegisterForBroadcast = 28;
constexpr std::uint32_t kRegisterForSettings = 34;
constexpr std::size_t kMostBytes = std::size_t{8} << 20;  // of one message
constexpr std::size_t kMostDescriptors = 253;             // that one sendmsg takes

std::string is_interactive() {
  return request_to(kPower).bytes();
}
Message good_call(std::uint32_t serial = 2) {
  return call_of(kPower, serial, kIsInteractive, is_interactive());
}
std::string conversation() {
  return kHello + open_of(kPower).bytes() + good_call().bytes();
}

void expect_served(Target& target, Line& line, std::uint32_t serial) {
  const Answer answer = target.expect_answer(line, serial);
  // No exception, and the screen is on.
  if (answer.status != 0 || answer.bytes != Words().i32(0).i32(1).bytes()) throw Broken("a wrong answer");
}

// ---- Before there is a message ----

void add_handshakes(std::vector<ClientInput>& inputs) {
  const std::string whole = conversation();
  for (std::size_t size = 0; size < whole.size(); ++size) {
    inputs.push_back({"client/conversation/cut-at-" + std::to_string(size), [size](Target& target) {
                        Line& line = target.connect();
                        line.send(conversation().substr(0, size));
                        line.close();
                      }});
  }
  for (std::size_t size = 0; size < whole.size(); size += 9) {
    inputs.push_back({"client/conversation/silent-after-" + std::to_string(size),
                      [size](Target& target) { target.connect().send(conversation().substr(0, size)); }});
  }
  inputs.push_back({"client/conversation/a-byte-at-a-time", [](Target& target) {
                      Line& line = target.connect();
                      for (const char byte : conversation()) line.send({&byte, 1});
                      expect_served(target, line, 2);
                    }});
  for (const auto& [what, text] : nonsense()) {
    inputs.push_back({std::string("client/handshake/") + what, [text = text](Target& target) {
                        Line& line = target.connect();
                        line.send(text);
                        line.send(open_of(kPower).bytes() + good_call().bytes());
                      }});
  }
  inputs.push_back({"client/handshake/with-descriptors", [](Target& target) {
                      Line& line = target.connect();
                      line.send(kHello, std::vector<int>(16, STDIN_FILENO));
                      target.expect_dropped(line);
                    }});
  inputs.push_back({"client/handshake/rejected-for-ever", [](Target& target) {
                      Line& line = target.connect();
                      line.send("\0"s);
                      for (int n = 0; n < 2000; ++n) line.send("AUTH NOTHING\r\n");
                    }});
  inputs.push_back({"client/handshake/no-descriptors-then-a-call", [](Target& target) {
                      Line& line = target.connect();
                      line.send("\0AUTH EXTERNAL\r\nDATA\r\nBEGIN\r\n"s + open_of(kPower).bytes() +
                                good_call().bytes());
                    }});
}

// ---- Messages that are none ----

void add_headers(std::vector<ClientInput>& inputs) {
  const auto add = [&](const std::string& what, bool dropped, const std::function<void(Message&)>& change) {
    inputs.push_back({"client/header/" + what, [dropped, change](Target& target) {
                        Line& line = target.open();
                        Message call = good_call();
                        change(call);
                        line.send(call.bytes() + std::string(64, '\0'));
                        if (dropped) target.expect_dropped(line);
                      }});
  };
  for (const char endian : {'\0', 'L', 'b', '\xFF'}) {
    add("endianness-" + std::to_string(static_cast<unsigned char>(endian)), true,
        [endian](Message& call) { call.endian = endian; });
  }
  for (const int version : {0, 2, 255}) {
    add("version-" + std::to_string(version), true,
        [version](Message& call) { call.version = static_cast<std::uint8_t>(version); });
  }
  for (const int type : {0, 2, 3, 4, 5, 255}) {
    add("type-" + std::to_string(type), true, [type](Message& call) { call.type = static_cast<std::uint8_t>(type); });
  }
  for (const int flags : {2, 4, 8, 0xF0, 0xFF}) {
    add("flags-" + std::to_string(flags), false,
        [flags](Message& call) { call.flags = static_cast<std::uint8_t>(flags); });
  }
  add("serial-0", true, [](Message& call) { call.serial = 0; });
  add("serial-largest", false, [](Message& call) { call.serial = UINT32_MAX; });
  for (const std::uint32_t length : {0U, 3U, 128U << 20U, (128U << 20U) + 1, 0x7FFFFFFFU, 0xFFFFFFF8U, UINT32_MAX}) {
    const bool waits = length == 128U << 20U;  // the most that a message may be, header included, or less
    add("body-of-" + std::to_string(length), !waits && length > 128U << 20U,
        [length](Message& call) { call.body_length = length; });
    add("fields-of-" + std::to_string(length), length > 128U << 20U,
        [length](Message& call) { call.fields_length = length; });
  }
  for (const std::uint32_t more : {1U, 4U, 8U}) {
    add("body-longer-by-" + std::to_string(more), false,
        [more](Message& call) { call.body_length = static_cast<std::uint32_t>(call.body.size()) + more; });
    add("body-shorter-by-" + std::to_string(more), true,
        [more](Message& call) { call.body_length = static_cast<std::uint32_t>(call.body.size()) - more; });
  }
  const std::pair<const char*, std::optional<std::string>> texts[] = {
      {"missing", std::nullopt},          {"empty", ""},
      {"with-zeros", "/a\0b"s},           {"with-spaces", "/a b"},
      {"not-utf-8", "/\xFF\xFE"},         {"two-slashes", "//"},
      {"a-slash-at-the-end", "/a/"},      {"dots", "/../.."},
      {"endless", std::string(300, 'a')}, {"very-long-path", "/" + std::string(100'000, 'a')},
  };
  for (const auto& [what, text] : texts) {
    add("path-"s + what, true, [text = text](Message& call) { call.path = text; });
    add("interface-"s + what, true, [text = text](Message& call) { call.interface = text; });
    add("member-"s + what, true, [text = text](Message& call) { call.member = text; });
  }
  for (const char* signature : {"", "u", "ay", "uayatx", "ua", "u(", "u)", "u{uy}", "((((((((u))))))))", "ua{yv}",
                                "\xFF", "uv", "uayatht", "iay", "uas"}) {
    add("signature-" + (*signature == '\xFF' ? "ff"s : signature), true,
        [signature](Message& call) { call.signature = signature; });
  }
  add("signature-missing", true, [](Message& call) { call.signature.reset(); });
  add("signature-of-255", true, [](Message& call) { call.signature = std::string(255, 'u'); });
  add("signature-of-nested-arrays", true, [](Message& call) { call.signature = std::string(254, 'a') + 'y'; });
  add("a-reply-serial-on-a-call", false, [](Message& call) { call.reply_serial = 1; });
  add("descriptors-that-do-not-come", true, [](Message& call) { call.descriptors = 1; });
  add("many-descriptors-that-do-not-come", true, [](Message& call) { call.descriptors = UINT32_MAX; });
  const std::pair<const char*, std::string> fields[] = {
      {"field-0", "\0\1u\0\1\0\0\0"s},
      {"field-200", "\xC8\1u\0\1\0\0\0"s},
      {"a-path-twice", "\1\1o\0\2\0\0\0/a\0"s},
      {"a-path-that-is-a-number", "\1\1u\0\1\0\0\0"s},
      {"a-field-without-a-value", "\3\1s\0"s},
      {"a-field-with-an-endless-text", "\3\1s\0\xFF\xFF\xFF\x7F"s},
      {"a-field-with-an-endless-signature", "\x8\1g\0\xFF"s},
      {"a-field-of-two-types", "\3\2ss\0\1\0\0\0a\0"s},
      {"a-variant-in-a-variant", "\xC8\1v\0\1v\0\1v\0\1v\0\1v\0\1v\0"s},
      {"a-sender-of-its-choice", "\7\1s\0\4\0\0\0:1.1\0"s},
      {"a-destination", "\6\1s\0\4\0\0\0:1.1\0"s},
  };
  for (const auto& [what, bytes] : fields)
    add(what, false, [bytes = bytes](Message& call) { call.extra_fields = bytes; });
  add("big-endian-and-right", false, [](Message& call) {
    call.endian = 'B';
    call.body = Body(true).u32(kIsInteractive).array("").bytes();
  });
}

// ---- Messages that are not for here ----

void add_rules(std::vector<ClientInput>& inputs) {
  using Make = std::function<std::string()>;
  const auto add = [&](const std::string& what, bool opened, bool dropped, const Make& make) {
    inputs.push_back({"client/rules/" + what, [opened, dropped, make](Target& target) {
                        Line& line = opened ? target.open() : target.connect();
                        // After the handshake: sd-bus looks at what came with it only when more comes.
                        if (!opened) line.send(kHello);
                        line.finish_handshake(target.limit_ms());
                        line.send(make());
                        if (dropped) target.expect_dropped(line);
                      }});
  };
  const auto opening = [](const char* path) {
    Message open = open_of(kPower);
    open.path = path;
    return open.bytes();
  };
  add("a-call-before-the-name", false, true, [] { return good_call().bytes(); });
  for (const char* path :
       {"/", "/service", "/service/nobody", "/service/orvel_5fdelegate/x", "/service/_2e_2e_2foutside"}) {
    add("opens"s + path, false, true, [=] { return opening(path); });
  }
  add("opens-with-arguments", false, true, [] {
    Message open = open_of(kPower);
    open.signature = "u";
    open.body = Body().u32(1).bytes();
    return open.bytes();
  });
  add("opens-and-wants-an-answer", false, false, [] {
    Message open = open_of(kPower);
    open.flags = 0;
    return open.bytes();
  });
  add("opens-twice", true, true, [] { return open_of(kPower).bytes(); });
  add("opens-another-service-too", true, true, [] { return open_of(kDelegate).bytes(); });
  add("calls-another-service", true, true, [] { return call_of(kDelegate, 2, 33, "").bytes(); });
  for (const char* member : {"Release", "Shout", "call", "Introspect", "Ping", "Hello"}) {
    add("member-"s + member, true, true, [=] {
      Message call = good_call();
      call.member = member;
      return call.bytes();
    });
  }
  for (const char* interface :
       {"org.freedesktop.DBus.Peer", "org.freedesktop.DBus.Properties", "org.freedesktop.DBus", "vesk.peer"}) {
    add("interface-"s + interface, true, true, [=] {
      Message call = good_call();
      call.interface = interface;
      return call.bytes();
    });
  }
  add("an-answer-to-nothing", true, true, [] { return answer_of(7, 0, "").bytes(); });
  add("an-error-to-nothing", true, true, [] {
    Message error = answer_of(7, 0, "");
    error.type = kError;
    error.extra_fields = "\4\1s\0\3\0\0\0a.b\0"s;
    return error.bytes();
  });
  add("a-signal", true, true, [] {
    Message signal = good_call();
    signal.type = kSignal;
    return signal.bytes();
  });
  add("one-way", true, false, [] {
    Message call = good_call();
    call.flags = kNoReplyExpected;
    return call.bytes();
  });
  add("the-same-serial-again", true, false,
      [] { return good_call(2).bytes() + good_call(2).bytes() + good_call(2).bytes(); });
  add("endpoints-without-a-channel", true, true,
      [] { return call_of(kPower, 2, 1, is_interactive(), {1}, false).bytes(); });
  add("array-length-beyond-the-body", true, true, [] {
    Message call = good_call();
    call.body = Body().u32(1).u32(UINT32_MAX).u32(0).bytes();
    return call.bytes();
  });
  add("array-length-negative", true, true, [] {
    Message call = good_call();
    call.body = Body().u32(1).u32(0x80000000U).u32(0).bytes();
    return call.bytes();
  });
  add("array-of-64-mib-announced", true, true, [] {
    Message call = good_call();
    call.body = Body().u32(1).u32(64U << 20U).u32(0).bytes();
    return call.bytes();
  });
  add("numbers-array-that-is-no-multiple", true, true, [] {
    Message call = call_of(kPower, 2, 1, "", {1}, false);
    call.body = Body().u32(1).array("").u32(7).raw(std::string(11, '\1')).bytes();
    return call.bytes();
  });
}

// ---- Descriptors ----

// Ends of a socket pair; the one that is sent is closed here afterwards.
std::pair<vesk::UniqueFd, vesk::UniqueFd> socket_pair(int type) {
  int ends[2];
  vesk::check_errno(::socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, ends));
  return {vesk::UniqueFd(ends[0]), vesk::UniqueFd(ends[1])};
}

Message registration(std::uint32_t serial, const std::vector<std::uint64_t>& numbers, bool channel) {
  return call_of(kDelegate, serial, kRegisterForBroadcast,
                 request_to(kDelegate).text("hostile").i32(0).i32(0).endpoint(0).bytes(), numbers, channel);
}
Message setting_registration(std::uint32_t serial, bool channel) {
  return call_of(kDelegate, serial, kRegisterForSettings, request_to(kDelegate).text("hostile").endpoint(0).bytes(),
                 {1}, channel);
}

// What the setting of the registrations above has not been before.
std::string fresh_value(Target& target) {
  return std::to_string(target.random());
}

// The broadcast that the registrations above are for, from a connection of its own.
void broadcast(Target& target) {
  Words fields;
  fields.text("hostile").i32(-1).i32(-1).i32(-1).i32(0).i32(0).i32(-1).i32(0);
  const auto length = static_cast<std::int32_t>(fields.bytes().size());
  const std::string intent = request_to(kDelegate).i32(1).i32(length + 4).bytes() + fields.bytes();
  Line& line = target.open(kDelegate);
  line.send(call_of(kDelegate, 2, kSendBroadcast, intent).bytes());
  target.expect_answer(line, 2);
}

void add_descriptors(std::vector<ClientInput>& inputs) {
  const auto add_kind = [&](const std::string& what, const std::function<vesk::UniqueFd()>& make) {
    inputs.push_back({"client/channel/is-" + what, [make](Target& target) {
                        Line& line = target.open(kDelegate);
                        const vesk::UniqueFd channel = make();
                        line.send(registration(2, {1}, true).bytes(), {channel.get()});
                        target.expect_dropped(line);
                      }});
  };
  add_kind("dev-null", [] { return vesk::UniqueFd(::open("/dev/null", O_RDWR | O_CLOEXEC)); });
  add_kind("dev-zero", [] { return vesk::UniqueFd(::open("/dev/zero", O_RDWR | O_CLOEXEC)); });
  add_kind("a-directory", [] { return vesk::UniqueFd(::open("/", O_RDONLY | O_CLOEXEC)); });
  add_kind("an-eventfd", [] { return vesk::UniqueFd(::eventfd(0, EFD_CLOEXEC)); });
  add_kind("a-pipe", [] {
    int ends[2];
    vesk::check_errno(::pipe2(ends, O_CLOEXEC));
    ::close(ends[1]);
    return vesk::UniqueFd(ends[0]);
  });
  add_kind("a-datagram-socket", [] { return socket_pair(SOCK_DGRAM).first; });
  add_kind("a-packet-socket", [] { return socket_pair(SOCK_SEQPACKET).first; });
  add_kind("an-unconnected-socket", [] { return vesk::UniqueFd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)); });
  add_kind("an-internet-socket", [] { return vesk::UniqueFd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)); });
  add_kind("half-closed", [] { return socket_pair(SOCK_STREAM).first; });

  inputs.push_back({"client/channel/is-the-device-itself", [](Target& target) {
                      Line& line = target.open(kDelegate);
                      Line& other = target.connect(kDelegate);
                      line.send(registration(2, {1}, true).bytes(), {other.descriptor()});
                      target.expect_dropped(line);
                    }});
  inputs.push_back({"client/channel/is-this-very-connection", [](Target& target) {
                      Line& line = target.open(kDelegate);
                      line.send(registration(2, {1}, true).bytes(), {line.descriptor()});
                      target.expect_dropped(line);
                    }});
  inputs.push_back({"client/channel/silent", [](Target& target) {
                      Line& line = target.open(kDelegate);
                      target.keep(send_with_channel(line, registration(2, {1}, true), false));
                      target.expect_dropped(line);
                    }});
  inputs.push_back({"client/channel/twice", [](Target& target) {
                      Line& line = target.open(kDelegate);
                      const Line first = send_with_channel(line, registration(2, {1}, true));
                      const Line second = send_with_channel(line, registration(3, {1}, true));
                      target.expect_dropped(line);
                    }});
  for (const auto& [what, text] : nonsense()) {
    inputs.push_back({std::string("client/channel/greets-with-") + what, [text = text](Target& target) {
                        Line& line = target.open(kDelegate);
                        auto [mine, theirs] = socket_pair(SOCK_STREAM);
                        Line& channel = target.keep(Line(std::move(mine)));
                        ::fcntl(channel.descriptor(), F_SETFL, O_NONBLOCK);
                        channel.send(text.substr(0, 4096));
                        line.send(registration(2, {1}, true).bytes(), {theirs.get()});
                      }});
  }
  // The receiver answers each line, for as long as lines come.
  inputs.push_back({"client/channel/handshake-never-ends", [](Target& target) {
                      Line& line = target.open(kDelegate);
                      auto [mine, theirs] = socket_pair(SOCK_STREAM);
                      Line channel(std::move(mine));
                      std::string lines = "\0"s;
                      while (lines.size() < 60'000) lines += "AUTH NO\r\n";
                      channel.send(lines);
                      line.send(registration(2, {1}, true).bytes(), {theirs.get()});
                      theirs.reset();
                      const auto end = Clock::now() + std::chrono::milliseconds(3 * target.limit_ms());
                      char bytes[65536];
                      bool open = true;
                      while (open && Clock::now() < end) {
                        const std::string more = lines.substr(1, 9000);
                        open =
                            ::send(channel.descriptor(), more.data(), more.size(), MSG_NOSIGNAL | MSG_DONTWAIT) >= 0 ||
                            errno == EAGAIN;
                        while (::recv(channel.descriptor(), bytes, sizeof(bytes), MSG_DONTWAIT) > 0) {
                        }
                      }
                      if (open) throw Broken("the device listens to one client's greetings and to nobody else");
                    }});

  for (const std::size_t count : {std::size_t{1}, std::size_t{16}, kMostDescriptors}) {
    inputs.push_back(
        {"client/descriptors/" + std::to_string(count) + "-that-nobody-asked-for", [count](Target& target) {
           Line& line = target.open();
           Message call = good_call();
           call.descriptors = static_cast<std::uint32_t>(count);
           line.send(call.bytes(), std::vector<int>(count, STDIN_FILENO));
           expect_served(target, line, 2);
         }});
    inputs.push_back({"client/descriptors/" + std::to_string(count) + "-unannounced",
                      [count](Target& target) {
                        Line& line = target.open();
                        line.send(good_call().bytes(), std::vector<int>(count, STDIN_FILENO));
                        // sd-bus 252 passes over a message that is not what it says, and forgets what came with it.
                      },
                      count});
  }
  inputs.push_back({"client/descriptors/a-channel-and-more", [](Target& target) {
                      Line& line = target.open(kDelegate);
                      auto [mine, theirs] = socket_pair(SOCK_STREAM);
                      Line& channel = target.keep(Line(std::move(mine)));
                      channel.send(kHello);
                      Message call = registration(2, {1}, true);
                      call.descriptors = 3;
                      line.send(call.bytes(), {theirs.get(), STDIN_FILENO, STDIN_FILENO});
                      target.expect_answer(line, 2);
                    }});
  inputs.push_back({"client/descriptors/an-index-beyond-them", [](Target& target) {
                      Line& line = target.open(kDelegate);
                      auto [mine, theirs] = socket_pair(SOCK_STREAM);
                      Message call = registration(2, {1}, true);
                      call.body.replace(call.body.size() - 4, 4, Words().i32(9).bytes());
                      line.send(call.bytes(), {theirs.get()});
                      target.expect_dropped(line);
                    }});
  inputs.push_back({"client/descriptors/hoarded-in-half-a-message", [](Target& target) {
                      Line& line = target.open();
                      const std::string call = good_call().bytes();
                      // Below what the device may have open: the others must get their connections.
                      for (int n = 0; n < 2; ++n)
                        line.send({call.data() + n, 1}, std::vector<int>(kMostDescriptors, STDIN_FILENO));
                    }});
  inputs.push_back({"client/descriptors/until-none-are-left", [](Target& target) {
                      Line& line = target.open();
                      const std::string call = good_call().bytes();
                      for (std::size_t n = 0; n < 12; ++n)
                        line.send({call.data() + n, 1}, std::vector<int>(kMostDescriptors, STDIN_FILENO));
                      line.close();
                    }});
}

// ---- References and callbacks ----

// A client that has registered for the broadcast, with the callback channel open.
struct Registered {
  Line& line;
  Line& channel;
};
Registered registered(Target& target, const std::vector<std::uint64_t>& numbers = {1}) {
  Line& line = target.open(kDelegate);
  Line& channel = target.keep(send_with_channel(line, registration(2, numbers, true)));
  if (target.expect_answer(line, 2).word(0) != 0) throw Broken("a good registration was refused");
  return {line, channel};
}

void add_references(std::vector<ClientInput>& inputs) {
  const auto add = [&](const std::string& what, const std::function<void(Target&)>& run) {
    inputs.push_back({"client/references/" + what, run});
  };
  for (const std::uint64_t number : {std::uint64_t{0}, std::uint64_t{1} << 63U, UINT64_MAX}) {
    add("number-" + std::to_string(number), [number](Target& target) {
      const Registered client = registered(target, {number});
      broadcast(target);
      if (const auto call = client.channel.receive(target.limit_ms()); !call || call->member != "Call")
        throw Broken("no callback");
    });
  }
  add("the-same-many-times", [](Target& target) { registered(target, std::vector<std::uint64_t>(64, 1)); });
  add("none-but-a-channel", [](Target& target) {
    Line& line = target.open(kDelegate);
    const Line channel = send_with_channel(line, call_of(kDelegate, 2, 33, request_to(kDelegate).bytes(), {}, true));
    target.expect_answer(line, 2);
  });
  for (const std::size_t count : {std::size_t{5'000}, std::size_t{500'000}}) {
    add(std::to_string(count) + "-in-one-message", [count](Target& target) {
      Line& line = target.open(kDelegate);
      std::vector<std::uint64_t> numbers(count);
      for (std::size_t n = 0; n < count; ++n) numbers[n] = n + 1;
      target.keep(send_with_channel(line, registration(2, numbers, true)));
      target.expect_dropped(line);
    });
  }

  const auto add_answer = [&](const std::string& what, bool dropped,
                              const std::function<std::string(const Received&)>& make) {
    inputs.push_back({"client/callback/" + what, [dropped, make](Target& target) {
                        Line& line = target.open(kDelegate);
                        Line& channel = target.keep(send_with_channel(line, setting_registration(2, true)));
                        target.expect_answer(line, 2);
                        target.change_setting("hostile", fresh_value(target));
                        const auto call = channel.receive(target.limit_ms());
                        if (!call || call->member != "Call") throw Broken("no callback");
                        channel.send(make(*call));
                        if (dropped) target.expect_dropped(line);
                      }});
  };
  add_answer("answered", false, [](const Received& call) { return answer_of(call.serial, 0, "").bytes(); });
  add_answer("answered-twice", true, [](const Received& call) {
    return answer_of(call.serial, 0, "").bytes() + answer_of(call.serial, 0, "").bytes();
  });
  add_answer("answered-with-another-serial", true,
             [](const Received& call) { return answer_of(call.serial + 1, 0, "").bytes(); });
  add_answer("answered-before-being-asked", true, [](const Received& call) {
    return answer_of(call.serial + 7, 0, "").bytes() + answer_of(call.serial, 0, "").bytes();
  });
  add_answer("answered-with-an-error-status", false,
             [](const Received& call) { return answer_of(call.serial, -7, "").bytes(); });
  add_answer("answered-with-nothing", true, [](const Received& call) {
    Message answer = answer_of(call.serial, 0, "");
    answer.signature.reset();
    answer.body.clear();
    return answer.bytes();
  });
  add_answer("answered-with-another-type", true, [](const Received& call) {
    Message answer = answer_of(call.serial, 0, "");
    answer.signature = "s";
    answer.body = Body().text("text").bytes();
    return answer.bytes();
  });
  add_answer("answered-with-more-than-8-mib", true,
             [](const Received& call) { return answer_of(call.serial, 0, std::string(kMostBytes + 1, 'x')).bytes(); });
  add_answer("answered-with-an-error-message", false, [](const Received& call) {
    Message error = answer_of(call.serial, 0, "");
    error.type = kError;
    error.extra_fields = "\4\1s\0\3\0\0\0a.b\0"s;
    return error.bytes();
  });
  add_answer("called-back", true, [](const Received&) { return good_call(9).bytes(); });
  add_answer("a-signal", true, [](const Received&) {
    Message signal = good_call(9);
    signal.type = kSignal;
    return signal.bytes();
  });
  add_answer("nonsense", true, [](const Received&) { return std::string(256, '\xFF'); });
  add_answer("half-an-answer", false,
             [](const Received& call) { return answer_of(call.serial, 0, "").bytes().substr(0, 20); });
  add_answer("never-answered", false, [](const Received&) { return std::string(); });

  inputs.push_back({"client/callback/channel-closed", [](Target& target) {
                      const Registered client = registered(target);
                      client.channel.close();
                      target.expect_dropped(client.line);
                      broadcast(target);
                    }});
  inputs.push_back({"client/callback/never-read", [](Target& target) {
                      registered(target);
                      for (int n = 0; n < 40; ++n) broadcast(target);
                    }});
  inputs.push_back({"client/callback/gone-while-called", [](Target& target) {
                      Line& line = target.open(kDelegate);
                      send_with_channel(line, setting_registration(2, true)).close();
                      line.close();
                      target.change_setting("hostile", fresh_value(target));
                    }});
}

// ---- Too much, and too slow ----

void add_amounts(std::vector<ClientInput>& inputs) {
  const auto add = [&](const std::string& what, const std::function<void(Target&)>& run) {
    inputs.push_back({"client/" + what, run});
  };
  add("size/8-mib", [](Target& target) {
    Line& line = target.open();
    line.send(
        call_of(kPower, 2, kIsInteractive, is_interactive() + std::string(kMostBytes - is_interactive().size(), 'x'))
            .bytes());
    if (target.expect_answer(line, 2).word(0) >= 0) throw Broken("bytes behind the arguments were taken");
  });
  for (const std::size_t more : {std::size_t{1}, kMostBytes, 6 * kMostBytes}) {
    add("size/8-mib-and-" + std::to_string(more), [more](Target& target) {
      Line& line = target.open();
      line.send(call_of(kPower, 2, kIsInteractive, std::string(kMostBytes + more, 'x')).bytes());
      target.expect_dropped(line);
    });
  }
  add("size/127-mib-announced-1-sent", [](Target& target) {
    Message call = good_call();
    call.body_length = 127U << 20U;
    call.body.resize(1U << 20U);
    target.open().send(call.bytes());
  });
  add("slow/127-mib-a-byte-at-a-time", [](Target& target) {
    Message call = good_call();
    call.body_length = 127U << 20U;
    Line& line = target.open();
    line.send(call.bytes());
    // As fast as it can, while another is served.
    bool stop = false;
    std::thread dribble([&] {
      while (!__atomic_load_n(&stop, __ATOMIC_RELAXED) && ::send(line.descriptor(), "x", 1, MSG_NOSIGNAL) == 1) {
      }
    });
    const auto start = Clock::now();
    Line& other = target.open();
    other.send(good_call().bytes());
    std::string failure;
    try {
      while (Clock::now() - start < std::chrono::milliseconds(300)) {
        expect_served(target, other, 2);
        other.send(good_call().bytes());
      }
    } catch (const Broken& broken) {
      failure = broken.what();
    }
    __atomic_store_n(&stop, true, __ATOMIC_RELAXED);
    ::shutdown(line.descriptor(), SHUT_RDWR);
    dribble.join();
    if (!failure.empty()) throw Broken("beside it another got " + failure);
  });
  add("slow/never-reads-answers", [](Target& target) {
    Line& line = target.open();
    const std::string call = good_call().bytes();
    std::string calls;
    for (int n = 0; n < 64; ++n) calls += call;
    bool open = true;
    for (int n = 0; open && n < 4000; ++n) open = line.send(calls);
    if (open) throw Broken("answers are kept for it without end");
  });
  add("flood/calls", [](Target& target) {
    Line& line = target.open();
    std::string calls;
    for (std::uint32_t n = 0; n < 500; ++n) calls += good_call(n + 2).bytes();
    line.send(calls);
    for (std::uint32_t n = 0; n < 500; ++n) expect_served(target, line, n + 2);
  });
  add("flood/empty-connections", [](Target& target) {
    for (int n = 0; n < 60; ++n) target.connect();
  });
  add("flood/connections-that-come-and-go", [](Target& target) {
    for (int n = 0; n < 400; ++n) target.connect().close();
    Line& line = target.open();  // of the same process
    line.send(good_call().bytes());
    expect_served(target, line, 2);
  });
  add("flood/conversations-that-come-and-go", [](Target& target) {
    for (int n = 0; n < 400; ++n) {
      Line& line = target.connect();
      line.send(conversation());
      line.close();
    }
    Line& line = target.open();
    line.send(good_call().bytes());
    expect_served(target, line, 2);
  });
  for (const char* kind : {"silent", "greeted", "open", "calling"}) {
    add("flood/300-connections-of-another-process-"s + kind, [kind](Target& target) { target.run_flood(kind); });
  }
}

void add_mutations(std::vector<ClientInput>& inputs, int count) {
  for (int n = 0; n < count; ++n) {
    inputs.push_back({"client/mutated/" + std::to_string(n), [n](Target& target) {
                        Line& line = target.connect(n % 3 == 2 ? kDelegate : kPower);
                        const std::string open = open_of(kPower).bytes();
                        switch (n % 3) {
                          case 0:
                            line.send(mutated(conversation(), target.random));
                            break;
                          case 1:
                            line.send(kHello + open + mutated(good_call().bytes(), target.random));
                            break;
                          default:
                            line.send(kHello + open_of(kDelegate).bytes());
                            Message call = registration(2, {1}, true);
                            call.body = mutated(call.body, target.random);
                            target.keep(send_with_channel(line, call));
                        }
                      }});
  }
}

}  // namespace

std::vector<ClientInput> client_inputs(int count) {
  std::vector<ClientInput> inputs;
  add_handshakes(inputs);
  add_headers(inputs);
  add_rules(inputs);
  add_descriptors(inputs);
  add_references(inputs);
  add_amounts(inputs);
  add_mutations(inputs, count);
  return inputs;
}

}  // namespace orvel::hostile
