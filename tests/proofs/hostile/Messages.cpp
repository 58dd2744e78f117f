// Messages and channels that break the rules of the connection. What is not even a message is in the corpus of the fuzz
// target of the host runtime's socket.
#include <fcntl.h>

#include <type_traits>

#include "Inputs.h"

namespace orvel::hostile {
namespace {

using namespace std::string_literals;
using test::bus_answer;
using test::bus_callback;
using test::bus_open;
using test::bus_release;
using test::BusBody;
using test::kBusAnswer;
using test::kDelegate;
using test::kPower;
using test::kServices;

enum Place {
  // Of a client of the device:
  kFirst,   // behind the handshake
  kOpened,  // to the power manager
  kCalled,  // to a callback
  // Of a service:
  kGreeting,   // in place of its part of the handshake
  kAnswering,  // to the client's first call
  kCalling,    // over the client's callback channel
};

// Of the messages that the rows answer: a client opens a connection and calls; a channel begins with a call.
constexpr std::uint32_t kCall = 2;
constexpr std::uint32_t kCallback = 1;

constexpr const char* kTopics[] = {"client/rules/",     "client/rules/",   "client/callback/",
                                   "service/greeting/", "service/answer/", "service/callback/"};

struct Row {
  const char* name;
  Place place;
  Outcome outcome;
  std::string bytes;
};

// The message with another value of one member, as bytes.
template <typename Member>
std::string with(BusMessage message, Member BusMessage::*member, std::decay_t<Member> value) {
  message.*member = std::move(value);
  return message.bytes();
}

std::string with_body(BusMessage message, const char* signature, const BusBody& body) {
  message.body = body.bytes();
  return with(std::move(message), &BusMessage::signature, signature);
}

// The name, with bytes behind it up to this size.
std::string name_of_size(std::size_t size) {
  std::string bytes(test::view_of(test::wire("0 'Rogue'")));
  bytes.resize(size);
  return bus_answer(kCall, 0, bytes).bytes();
}

std::vector<Row> rows() {
  constexpr std::size_t kMost = std::size_t{8} << 20;  // bytes of one message
  const std::string too_long(kMost + 1, 'x');
  const BusMessage call = call_to(kPower, kCall, 1);
  const BusMessage answer = bus_answer(kCallback, 0, "");
  const std::string name = name_answer(kCall).bytes();
  const BusMessage news = setting_news();
  return {
      {"a-call-before-the-name", kFirst, kRefused, call.bytes()},
      {"opens-an-unknown-service", kFirst, kRefused, bus_open("unknown").bytes()},
      {"opens-twice", kOpened, kRefused, bus_open(kServices[kPower]).bytes()},
      {"calls-another-service", kOpened, kRefused, call_to(kDelegate, 2, 33).bytes()},
      {"another-interface", kOpened, kRefused, with(call, &BusMessage::interface, "a.b")},
      {"another-member", kOpened, kRefused, with(call, &BusMessage::member, "Shout")},
      {"another-signature", kOpened, kRefused, with(call, &BusMessage::signature, "uayatx")},
      {"an-answer-to-nothing", kOpened, kRefused, answer.bytes()},
      {"a-signal", kOpened, kRefused, with(call, &BusMessage::type, test::kBusSignal)},
      {"one-way", kOpened, kTaken, with(call, &BusMessage::flags, test::kNoReplyExpected)},
      {"endpoints-without-a-channel", kOpened, kRefused,
       test::bus_call(kServices[kPower], kCall, 1, "", {{1}}, false).bytes()},
      {"an-endless-array", kOpened, kRefused, with_body(call, "uay", BusBody().u32(1).u32(UINT32_MAX).u32(0))},
      {"more-than-8-mib", kOpened, kRefused, test::bus_call(kServices[kPower], kCall, 1, too_long).bytes()},

      {"answered", kCalled, kTaken, answer.bytes()},
      {"answered-twice", kCalled, kRefused, answer.bytes() + answer.bytes()},
      {"answered-with-another-serial", kCalled, kRefused, bus_answer(kCallback + 1, 0, "").bytes()},
      {"answered-with-a-status", kCalled, kTaken, bus_answer(kCallback, -7, "").bytes()},
      {"answered-with-nothing", kCalled, kRefused, with_body(answer, "", {})},
      {"answered-with-another-type", kCalled, kRefused, with_body(answer, "s", BusBody().text("text"))},
      {"answered-with-more-than-8-mib", kCalled, kRefused, bus_answer(kCallback, 0, too_long).bytes()},
      {"called-back", kCalled, kRefused, call.bytes()},
      {"nonsense", kCalled, kRefused, std::string(256, '\xFF')},

      {"none", kGreeting, kRefused, ""},
      {"twice", kGreeting, kRefused, kBusAnswer + kBusAnswer},
      {"nonsense", kGreeting, kRefused, std::string(256, '\xFF') + "\r\n"},

      {"twice", kAnswering, kTaken, name + name},
      {"of-another-call-first", kAnswering, kRefused, name_answer(kCall + 1).bytes() + name},
      {"a-call", kAnswering, kRefused, call.bytes() + name},
      {"half", kAnswering, kRefused, name.substr(0, 40)},
      {"8-mib", kAnswering, kTaken, name_of_size(kMost)},
      {"more-than-8-mib", kAnswering, kRefused, name_of_size(kMost + 1)},

      {"gives-back-twice", kCalling, kTaken, bus_release(1, 1).bytes() + bus_release(1, 1).bytes()},
      {"gives-back-all-there-are", kCalling, kTaken, bus_release(1, UINT32_MAX).bytes()},
      {"calls-what-it-gave-back", kCalling, kTaken, bus_release(1, 1).bytes() + news.bytes()},
      {"calls-the-unknown", kCalling, kTaken, bus_callback(1, 99, 1, "", true).bytes()},
      {"one-way-where-it-is-answered", kCalling, kTaken, setting_news(false).bytes()},
      {"of-more-than-8-mib", kCalling, kTaken, bus_callback(1, 1, 1, too_long, true).bytes()},
      {"another-member", kCalling, kTaken, with(news, &BusMessage::member, "Open")},
      {"another-signature", kCalling, kTaken, with(news, &BusMessage::signature, "tus")},
      {"an-endless-array", kCalling, kTaken, with_body(news, "tuay", BusBody().u64(1).u32(1).u32(UINT32_MAX))},
      {"half", kCalling, kTaken, news.bytes().substr(0, 40)},
  };
}

void say_to_device(const Row& row, Attack& attack) {
  const test::Service service = row.place == kCalled ? kDelegate : kPower;
  BusLine& line = row.place == kFirst ? attack.connect(kServices[service]) : attack.open(kServices[service]);
  if (row.place == kCalled) {
    BusLine& channel = attack.keep(send_with_channel(line, registration()));
    static_cast<void>(expect_answer(line, 2));
    change_setting();
    const auto callback = channel.receive(kPatienceMs);
    if (!callback || callback->serial != kCallback) throw Broken("no callback");
    channel.send(row.bytes);
  } else {
    line.send(row.bytes);
  }
  if (row.outcome == kRefused) return expect_dropped(line);
  line.send(call_to(service, 9, 1).bytes());
  static_cast<void>(expect_answer(line, 9));
}

void say_to_client(const Row& row, Visit& visit) {
  if (row.place == kCalling) return visit.serve_well([&row](Visit&, BusLine& channel) { channel.send(row.bytes); });
  visit.line.send(row.place == kGreeting ? row.bytes : kBusAnswer);
  if (row.place == kAnswering && visit.next_call() == kCall) visit.line.send(row.bytes);
  while (visit.next_call()) {
  }
}

}  // namespace

void add_messages(Inputs& inputs) {
  for (const Row& row : rows()) {
    const std::string name = std::string(kTopics[row.place]) + row.name;
    if (row.place <= kCalled) {
      inputs.push_back({name, [row](Attack& attack) { say_to_device(row, attack); }});
    } else {
      inputs.push_back({name, nullptr, [row](Visit& visit) { say_to_client(row, visit); }, row.outcome});
    }
  }
}

void add_channels(Inputs& inputs) {
  const auto of_client = [&inputs](const char* name, void (*act)(Attack&, BusLine&)) {
    inputs.push_back({name, [act](Attack& attack) {
                        BusLine& line = attack.open(kServices[kDelegate]);
                        act(attack, line);
                        expect_dropped(line);
                      }});
  };
  of_client("client/channel/not-a-socket", [](Attack&, BusLine& line) {
    const vesk::UniqueFd null(::open("/dev/null", O_RDWR | O_CLOEXEC));
    line.send(registration().bytes(), {null.get()});
  });
  of_client("client/channel/silent",
            [](Attack& attack, BusLine& line) { attack.keep(send_with_channel(line, registration(), false)); });
  of_client("client/channel/twice", [](Attack& attack, BusLine& line) {
    for (const std::uint32_t serial : {2U, 3U}) attack.keep(send_with_channel(line, registration(serial)));
  });
  of_client("client/channel/5000-endpoints", [](Attack& attack, BusLine& line) {
    const std::vector<std::uint64_t> numbers(5000, 1);
    attack.keep(send_with_channel(line, registration(2, numbers)));
  });
  of_client("client/channel/closed", [](Attack&, BusLine& line) {
    BusLine channel = send_with_channel(line, registration());
    if (expect_answer(line, 2).exception != 0) throw Broken("a good registration was refused");
  });

  const auto of_service = [&inputs](const char* name, void (*act)(Visit&, BusLine&)) {
    inputs.push_back({name, nullptr, [act](Visit& visit) { visit.serve_well(act); }, kTaken});
  };
  of_service("service/callback/good", [](Visit&, BusLine& channel) {
    std::optional<test::BusReceived> answer;
    for (int n = 0; !answer && n < 25; ++n) {  // sd-bus looks at what came with the handshake only when more comes
      channel.send(setting_news().bytes());
      answer = channel.receive(200);
    }
    if (!answer || answer->type != test::kBusReturn) throw Broken("a good callback was not answered");
  });
  of_service("service/callback/channel-closed", [](Visit&, BusLine& channel) { channel.close(); });
  // Each byte of the answer in time, and the whole not.
  const auto dribble = [](Visit& visit) {
    visit.line.send(kBusAnswer);
    while (const auto call = visit.next_call()) {
      BusMessage answer = name_answer(*call);
      answer.body_length = 127U << 20U;  // sd-bus takes as much
      visit.line.send(answer.bytes());
      while (visit.line.send("x")) {
      }
    }
  };
  inputs.push_back({"service/answer/dribble", nullptr, dribble, kRefused});
}

}  // namespace orvel::hostile
