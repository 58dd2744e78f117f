// What clients do to the device that breaks the rules of the connection. What is not even a message is in the corpus of
// the fuzz target of the host runtime's socket.
#include <fcntl.h>
#include <sys/socket.h>

#include <chrono>
#include <thread>

#include "Inputs.h"
#include "support/Process.h"

namespace orvel::hostile {
namespace {

using Clock = std::chrono::steady_clock;
using Inputs = std::vector<ClientInput>;
using namespace std::string_literals;
using test::kDelegate;
using test::kPower;
using test::socket_pair;
using vesk::UniqueFd;

constexpr std::uint32_t kIsInteractive = 1;
constexpr std::uint32_t kSendBroadcast = 27;
constexpr std::uint32_t kRegisterForBroadcast = 28;
constexpr std::uint32_t kRegisterForSettings = 34;

BusMessage good_call(std::uint32_t serial = 2) {
  return call_to(kPower, serial, kIsInteractive);
}
BusMessage open_power() {
  return test::bus_open(test::kServices[kPower]);
}
BusMessage registration(std::uint32_t serial = 2, const std::vector<std::uint64_t>& numbers = {1}) {
  return call_to(kDelegate, serial, kRegisterForBroadcast, test::wire("'hostile' 0 0 1447383888 0"), numbers);
}
BusMessage setting_registration() {
  return call_to(kDelegate, 2, kRegisterForSettings, test::wire("'hostile' 1447383888 0"), {{1}});
}

void expect_served(const Target& target, BusLine& line, std::uint32_t serial = 2) {
  const Answer answer = target.expect_answer(line, serial);
  // No exception, and the screen is on.
  if (answer.status != 0 || answer.bytes != view_of(test::wire("0 1"))) throw Broken("a wrong answer");
}

// The broadcast of the registrations above, from a connection of its own.
void broadcast(Target& target) {
  BusLine& line = target.open(kDelegate);
  line.send(call_to(kDelegate, 2, kSendBroadcast, test::wire("1 52 'hostile' ~ ~ ~ 0 0 ~ 0")).bytes());
  if (target.expect_answer(line, 2).word(0) != 0) throw Broken("a good broadcast was refused");
}

// The setting of the registrations above gets a value that it never had.
void change_setting(Target& target) {
  test::run({"orvel-sim", "set", "settings", "hostile", std::to_string(target.random())});
}

// Whole messages that are not for here.
void add_rules(Inputs& inputs) {
  struct Row {
    std::string what;
    bool dropped;
    std::string bytes;
    bool opened = true;
  };
  const BusMessage call = good_call();
  const auto opening = [](const char* path) { return with(open_power(), &BusMessage::path, path).bytes(); };
  const auto endless = [&call](std::uint32_t length) {
    return with(call, &BusMessage::body, BusBody().u32(1).u32(length).u32(0).bytes()).bytes();
  };
  const std::string odd_numbers = BusBody().u32(1).array("").u32(7).raw(std::string(11, '\1')).bytes();
  std::vector<Row> rows = {
      {"a-call-before-the-name", true, call.bytes(), false},
      {"opens-nothing", true, opening("/service"), false},
      {"opens-an-unknown-service", true, opening("/service/unknown"), false},
      {"opens-below-a-service", true, opening("/service/orvel_5fdelegate/x"), false},
      {"opens-outside", true, opening("/service/_2e_2e_2foutside"), false},
      {"opens-and-wants-an-answer", false, with(open_power(), &BusMessage::flags, 0).bytes(), false},
      {"opens-twice", true, open_power().bytes()},
      {"opens-another-service-too", true, test::bus_open(test::kServices[kDelegate]).bytes()},
      {"calls-another-service", true, call_to(kDelegate, 2, 33).bytes()},
      {"another-interface", true, with(call, &BusMessage::interface, "org.freedesktop.DBus.Peer").bytes()},
      {"another-signature", true, with(call, &BusMessage::signature, "uayatx").bytes()},
      {"an-answer-to-nothing", true, test::bus_answer(7, 0, "").bytes()},
      {"an-error-to-nothing", true, error_to(7).bytes()},
      {"a-signal", true, with(call, &BusMessage::type, test::kBusSignal).bytes()},
      {"one-way", false, with(call, &BusMessage::flags, test::kNoReplyExpected).bytes()},
      {"the-same-serial-again", false, call.bytes() + call.bytes() + call.bytes()},
      {"endpoints-without-a-channel", true, test::bus_call(test::kServices[kPower], 2, 1, "", {{1}}, false).bytes()},
      {"array-length-beyond-the-body", true, endless(UINT32_MAX)},
      {"array-length-negative", true, endless(0x80000000U)},
      {"array-of-64-mib-announced", true, endless(64U << 20U)},
      {"half-a-number", true,
       with(with(call, &BusMessage::signature, "uayat"), &BusMessage::body, odd_numbers).bytes()},
  };
  for (const char* member : {"Release", "Shout", "call"}) {
    rows.push_back({"member-"s + member, true, with(call, &BusMessage::member, member).bytes()});
  }
  for (const Row& row : rows) {
    inputs.push_back({"client/rules/" + row.what, [row](Target& target) {
                        BusLine& line = row.opened ? target.open() : target.connect();
                        // After the handshake: sd-bus looks at what came with it only when more comes.
                        if (!row.opened) line.send(test::kBusHello);
                        line.finish_handshake(target.limit_ms());
                        line.send(row.bytes);
                        if (row.dropped) target.expect_dropped(line);
                      }});
  }
}

// What comes in place of the callback channel, or beside it.
void add_channels(Inputs& inputs) {
  using Attack = void (*)(Target & target, BusLine & line);
  const auto add = [&inputs](const char* what, bool dropped, Attack attack) {
    inputs.push_back({"client/channel/"s + what, [=](Target& target) {
                        BusLine& line = target.open(kDelegate);
                        attack(target, line);
                        if (dropped) return target.expect_dropped(line);
                        static_cast<void>(target.expect_answer(line, 2));
                      }});
  };
  add("not-a-socket", true, [](Target&, BusLine& line) {
    const UniqueFd null(::open("/dev/null", O_RDWR | O_CLOEXEC));
    line.send(registration().bytes(), {null.get()});
  });
  add("silent", true,
      [](Target& target, BusLine& line) { target.keep(send_with_channel(line, registration(), false)); });
  add("twice", true, [](Target& target, BusLine& line) {
    target.keep(send_with_channel(line, registration(2)));
    target.keep(send_with_channel(line, registration(3)));
  });
  add("an-index-beyond-the-descriptors", true, [](Target&, BusLine& line) {
    BusMessage call = registration();
    call.body[call.body.size() - 4] = 9;
    line.send(call.bytes(), {socket_pair(SOCK_STREAM).second.get()});
  });
  add("with-more-descriptors", false, [](Target& target, BusLine& line) {
    auto [mine, theirs] = socket_pair(SOCK_STREAM);
    target.keep(BusLine(std::move(mine))).send(test::kBusHello);
    const BusMessage call = with(registration(), &BusMessage::descriptors, 3);
    line.send(call.bytes(), {theirs.get(), STDIN_FILENO, STDIN_FILENO});
  });
  add("without-an-endpoint", false, [](Target& target, BusLine& line) {
    target.keep(send_with_channel(line, call_to(kDelegate, 2, 33, {}, std::vector<std::uint64_t>())));
  });
  add("descriptors-without-a-channel", false, [](Target&, BusLine& line) {
    constexpr std::uint32_t kMostDescriptors = 253;  // that one message of a socket takes
    const BusMessage call = with(call_to(kDelegate, 2, 33), &BusMessage::descriptors, kMostDescriptors);
    line.send(call.bytes(), std::vector<int>(kMostDescriptors, STDIN_FILENO));
  });
}

// ---- References and callbacks ----

// Registers for the broadcast; returns the callback channel.
BusLine& registered(Target& target, BusLine& line, const std::vector<std::uint64_t>& numbers = {1}) {
  BusLine& channel = target.keep(send_with_channel(line, registration(2, numbers)));
  if (target.expect_answer(line, 2).word(0) != 0) throw Broken("a good registration was refused");
  return channel;
}

void expect_callback(const std::optional<BusReceived>& call) {
  if (!call || call->member != "Call") throw Broken("no callback");
}

void add_references(Inputs& inputs) {
  const auto add = [&inputs](const std::string& what, std::function<void(Target&)> run) {
    inputs.push_back({"client/references/" + what, std::move(run)});
  };
  for (const std::uint64_t number : {std::uint64_t{0}, std::uint64_t{1} << 63U, UINT64_MAX}) {
    add("number-" + std::to_string(number), [number](Target& target) {
      BusLine& channel = registered(target, target.open(kDelegate), {number});
      broadcast(target);
      expect_callback(channel.receive(target.limit_ms()));
    });
  }
  add("the-same-many-times",
      [](Target& target) { registered(target, target.open(kDelegate), std::vector<std::uint64_t>(64, 1)); });
  for (const std::size_t count : {std::size_t{5'000}, std::size_t{500'000}}) {
    add(std::to_string(count) + "-in-one-message", [count](Target& target) {
      BusLine& line = target.open(kDelegate);
      std::vector<std::uint64_t> numbers(count);
      for (std::size_t n = 0; n < count; ++n) numbers[n] = n + 1;
      target.keep(send_with_channel(line, registration(2, numbers)));
      target.expect_dropped(line);
    });
  }
}

// What a client says to a callback that waits for an answer.
void add_answers(Inputs& inputs) {
  struct Row {
    const char* what;
    bool dropped;
    std::string (*bytes)(std::uint32_t serial);
  };
  static constexpr auto answer = [](std::uint32_t to) { return test::bus_answer(to, 0, ""); };
  const Row rows[] = {
      {"answered", false, [](std::uint32_t to) { return answer(to).bytes(); }},
      {"answered-twice", true, [](std::uint32_t to) { return answer(to).bytes() + answer(to).bytes(); }},
      {"answered-with-another-serial", true, [](std::uint32_t to) { return answer(to + 1).bytes(); }},
      {"answered-with-an-error-status", false, [](std::uint32_t to) { return test::bus_answer(to, -7, "").bytes(); }},
      {"answered-with-nothing", true,
       [](std::uint32_t to) {
         return with(with(answer(to), &BusMessage::signature, std::nullopt), &BusMessage::body, "").bytes();
       }},
      {"answered-with-another-type", true,
       [](std::uint32_t to) {
         const BusMessage text = with(answer(to), &BusMessage::body, BusBody().text("text").bytes());
         return with(text, &BusMessage::signature, "s").bytes();
       }},
      {"answered-with-more-than-8-mib", true,
       [](std::uint32_t to) { return test::bus_answer(to, 0, std::string(kMostBytes + 1, 'x')).bytes(); }},
      {"answered-with-an-error-message", false, [](std::uint32_t to) { return error_to(to).bytes(); }},
      {"called-back", true, [](std::uint32_t) { return good_call(9).bytes(); }},
      {"a-signal", true, [](std::uint32_t) { return with(good_call(9), &BusMessage::type, test::kBusSignal).bytes(); }},
      {"nonsense", true, [](std::uint32_t) { return std::string(256, '\xFF'); }},
      {"half-an-answer", false, [](std::uint32_t to) { return answer(to).bytes().substr(0, 20); }},
      {"never-answered", false, [](std::uint32_t) { return std::string(); }},
  };
  for (const Row& row : rows) {
    inputs.push_back({"client/callback/"s + row.what, [row](Target& target) {
                        BusLine& line = target.open(kDelegate);
                        BusLine& channel = target.keep(send_with_channel(line, setting_registration()));
                        static_cast<void>(target.expect_answer(line, 2));
                        change_setting(target);
                        const auto call = channel.receive(target.limit_ms());
                        expect_callback(call);
                        channel.send(row.bytes(call->serial));
                        if (row.dropped) target.expect_dropped(line);
                      }});
  }
  inputs.push_back({"client/callback/channel-closed", [](Target& target) {
                      BusLine& line = target.open(kDelegate);
                      registered(target, line).close();
                      target.expect_dropped(line);
                      broadcast(target);
                    }});
  inputs.push_back({"client/callback/never-read", [](Target& target) {
                      registered(target, target.open(kDelegate));
                      for (int n = 0; n < 40; ++n) broadcast(target);
                    }});
  inputs.push_back({"client/callback/gone-while-called", [](Target& target) {
                      BusLine& line = target.open(kDelegate);
                      send_with_channel(line, setting_registration()).close();
                      line.close();
                      change_setting(target);
                    }});
}

// ---- Too much, and too slow ----

// Sends a byte at a time, as fast as it can, while another client is served.
void dribble(Target& target) {
  BusLine& line = target.open();
  line.send(with(good_call(), &BusMessage::body_length, 127U << 20U).bytes());
  std::thread sender([&line] {
    while (::send(line.descriptor(), "x", 1, MSG_NOSIGNAL) == 1) {
    }
  });
  std::string failure;
  try {
    BusLine& other = target.open();
    for (const auto start = Clock::now(); Clock::now() - start < std::chrono::milliseconds(300);) {
      other.send(good_call().bytes());
      expect_served(target, other);
    }
  } catch (const Broken& broken) {
    failure = broken.what();
  }
  ::shutdown(line.descriptor(), SHUT_RDWR);
  sender.join();
  if (!failure.empty()) throw Broken("beside it another got " + failure);
}

void add_amounts(Inputs& inputs) {
  const auto add = [&inputs](const std::string& what, std::function<void(Target&)> run) {
    inputs.push_back({"client/amounts/" + what, std::move(run)});
  };
  add("8-mib", [](Target& target) {
    BusLine& line = target.open();
    const std::string request(view_of(test::request(test::kInterfaces[kPower])));
    const std::string bytes = request + std::string(kMostBytes - request.size(), 'x');
    line.send(test::bus_call(test::kServices[kPower], 2, kIsInteractive, bytes).bytes());
    if (target.expect_answer(line, 2).word(0) >= 0) throw Broken("bytes behind the arguments were taken");
  });
  add("8-mib-and-1", [](Target& target) {
    BusLine& line = target.open();
    const std::string bytes(kMostBytes + 1, 'x');
    line.send(test::bus_call(test::kServices[kPower], 2, kIsInteractive, bytes).bytes());
    target.expect_dropped(line);
  });
  add("127-mib-a-byte-at-a-time", dribble);
  add("never-reads-answers", [](Target& target) {
    BusLine& line = target.open();
    std::string calls;
    for (int n = 0; n < 64; ++n) calls += good_call().bytes();
    bool open = true;
    for (int n = 0; open && n < 4000; ++n) open = line.send(calls);
    if (open) throw Broken("answers are kept for it without end");
  });
  add("conversations-that-come-and-go", [](Target& target) {
    for (int n = 0; n < 400; ++n) {
      BusLine& line = target.connect();
      line.send(test::kBusHello + open_power().bytes() + good_call().bytes());
      line.close();
    }
    BusLine& line = target.open();  // of the same process
    line.send(good_call().bytes());
    expect_served(target, line);
  });
}

}  // namespace

std::vector<ClientInput> client_inputs() {
  Inputs inputs;
  add_rules(inputs);
  add_channels(inputs);
  add_references(inputs);
  add_answers(inputs);
  add_amounts(inputs);
  return inputs;
}

}  // namespace orvel::hostile
