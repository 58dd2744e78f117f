// What services do to their clients that breaks the rules. Each plays the delegate service for one life of a client, which
// asks for a name, registers two receivers, and asks another service whether the screen is on.
#include <sys/socket.h>

#include <chrono>
#include <thread>

#include "Inputs.h"

namespace orvel::hostile {
namespace {

using namespace std::string_literals;
using test::bus_answer;
using test::bus_callback;
using test::bus_release;
using test::kBusAnswer;

constexpr std::uint32_t kDeliver = 1;

std::string text_of(const Bytes& bytes) {
  return std::string(view_of(bytes));
}

const std::string& good_result() {
  static const std::string result = text_of(test::wire("0 'Rogue'"));
  return result;
}

// Each answers every call of the client in its way.
void add_answers(std::vector<ServiceInput>& inputs) {
  const auto add = [&inputs](const std::string& what, const std::function<std::string(std::uint32_t serial)>& make) {
    inputs.push_back({"service/answer/" + what, [make](Visit& visit) {
                        visit.line.send(kBusAnswer);
                        while (const auto call = visit.next_call()) {
                          if (!visit.line.send(make(call->serial))) return;
                        }
                      }});
  };
  const auto add_result = [&add](const std::string& what, std::string result) {
    add("result-" + what, [result = std::move(result)](std::uint32_t to) { return bus_answer(to, 0, result).bytes(); });
  };
  const auto good = [](std::uint32_t to) { return bus_answer(to, 0, good_result()).bytes(); };
  add("good", good);
  add("twice", [good](std::uint32_t to) { return good(to) + good(to); });
  add("of-another-call-first", [good](std::uint32_t to) { return good(to + 1) + good(to); });
  add("to-the-opening", [good](std::uint32_t) { return good(1); });
  add("an-error-message", [](std::uint32_t to) { return error_to(to).bytes(); });
  add("a-call", [](std::uint32_t) { return call_to(test::kDelegate, 9, 33).bytes(); });
  for (const char* signature : {"i", "ay", "iayi", "s", "v", "uay"}) {
    add("signature-"s + signature, [signature](std::uint32_t to) {
      return with(bus_answer(to, 0, good_result()), &BusMessage::signature, signature).bytes();
    });
  }
  for (const char* result : {"", "0", "0 2147483647", "0 -2 7", "0 1 -1", "-3", "-3 'no' 0", "-3 'no' 1 'trace'",
                             "-3 2147483647", "-3 'no' 2147483647", "-3 '%s%n%s%n%d' 1 '%n%n%s'", "0 1447383888 0"}) {
    add_result("of-"s + result, text_of(test::wire(result)));
  }
  for (std::size_t size = 1; size < good_result().size(); size += 3) {
    add_result("cut-to-" + std::to_string(size), good_result().substr(0, size));
  }
  for (const std::size_t more : {std::size_t{0}, std::size_t{1}, kMostBytes}) {
    add_result("of-8-mib-and-" + std::to_string(more), std::string(kMostBytes + more, '\0'));
  }
}

void add_conversations(std::vector<ServiceInput>& inputs) {
  const std::string answer = bus_answer(2, 0, good_result()).bytes();
  for (std::size_t size = 0; size < answer.size(); size += 7) {
    inputs.push_back({"service/answer/cut-at-" + std::to_string(size), [size](Visit& visit) {
                        visit.line.send(kBusAnswer);
                        const auto call = visit.next_call();
                        if (!call) return;
                        visit.line.send(bus_answer(call->serial, 0, good_result()).bytes().substr(0, size));
                        if (size % 2 == 1) visit.serve_nothing();  // else it hangs up
                      }});
  }
  for (const std::string& greeting : {""s, kBusAnswer.substr(0, 20), "REJECTED EXTERNAL\r\n"s, kBusAnswer + kBusAnswer,
                                      kBusAnswer + bus_answer(2, 0, "").bytes(), std::string(256, '\xFF') + "\r\n"}) {
    inputs.push_back({"service/greeting/of-" + std::to_string(greeting.size()), [greeting](Visit& visit) {
                        visit.line.send(greeting);
                        visit.serve_well();
                      }});
  }
  // Every byte comes in time, and the whole does not.
  inputs.push_back({"service/answer/127-mib-a-byte-at-a-time", [](Visit& visit) {
                      visit.line.send(kBusAnswer);
                      const auto call = visit.next_call();
                      if (!call) return;
                      visit.line.send(
                          with(bus_answer(call->serial, 0, ""), &BusMessage::body_length, 127U << 20U).bytes());
                      while (visit.line.send("x")) {
                      }
                    }});
}

std::string setting_news() {
  return text_of(test::request("com.quarlo.orveldelegate.ISettingsReceiver", test::wire("'volume_alarm' '7'")));
}

BusMessage news() {
  return bus_callback(1, 1, kDeliver, setting_news(), true);
}

// What comes over the callback channel, and what becomes of the channel.
void add_callbacks(std::vector<ServiceInput>& inputs) {
  using Run = std::function<void(Visit&, BusLine&)>;
  const auto add = [&inputs](const std::string& what, const Run& run) {
    inputs.push_back({"service/callback/" + what, [run](Visit& visit) {
                        visit.line.send(kBusAnswer);
                        if (auto channel = visit.wait_for_channel()) {
                          run(visit, *channel);
                          visit.serve_well();
                        }
                      }});
  };
  add("good", [](Visit&, BusLine& channel) {
    channel.send(news().bytes());
    const auto answer = channel.receive(5000);
    if (!answer || answer->type != test::kBusReturn) throw Broken("a good callback was not answered");
  });
  std::vector<std::pair<std::string, std::string>> rows = {
      {"gives-back", bus_release(1, 1).bytes()},
      {"gives-back-twice", bus_release(1, 1).bytes() + bus_release(1, 1).bytes()},
      {"gives-back-all-there-are", bus_release(1, UINT32_MAX).bytes()},
      {"calls-what-it-gave-back", bus_release(1, 1).bytes() + news().bytes()},
      {"calls-the-unknown", bus_callback(1, 99, kDeliver, setting_news(), true).bytes()},
      {"one-way-where-it-is-answered", bus_callback(1, 1, kDeliver, setting_news(), false).bytes()},
      {"of-8-mib", bus_callback(1, 1, kDeliver, std::string(kMostBytes, '\0'), true).bytes()},
      {"of-more-than-8-mib", bus_callback(1, 1, kDeliver, std::string(kMostBytes + 1, '\0'), true).bytes()},
      {"another-member", with(news(), &BusMessage::member, "Open").bytes()},
      {"another-signature", with(news(), &BusMessage::signature, "tus").bytes()},
      {"an-endless-array", with(news(), &BusMessage::body, BusBody().u64(1).u32(1).u32(UINT32_MAX).bytes()).bytes()},
      {"an-answer-to-nothing", bus_answer(7, 0, "").bytes()},
      {"half-a-callback", news().bytes().substr(0, 40)},
  };
  for (std::size_t size = 0; size < setting_news().size(); size += 16) {
    const std::string cut = setting_news().substr(0, size);
    rows.push_back({"cut-to-" + std::to_string(size), bus_callback(1, 1, kDeliver, cut, true).bytes()});
  }
  for (const auto& [what, bytes] : rows) {
    add(what, [bytes = bytes](Visit&, BusLine& channel) { channel.send(bytes); });
  }
  add("channel-closed", [](Visit&, BusLine& channel) { channel.close(); });
  add("endless-after-the-hang-up", [](Visit& visit, BusLine& channel) {
    std::string calls;
    for (std::uint32_t n = 0; n < 100; ++n) calls += bus_callback(n + 1, 1, kDeliver, setting_news(), false).bytes();
    ::shutdown(visit.line.descriptor(), SHUT_RDWR);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    while (channel.send(calls)) {
      if (std::chrono::steady_clock::now() > end) throw Broken("callbacks are taken after the service hung up");
    }
  });
}

void add_mutations(std::vector<ServiceInput>& inputs, long count) {
  for (long n = 0; n < count; ++n) {
    inputs.push_back({"service/mutated/" + std::to_string(n), [n](Visit& visit) {
                        visit.line.send(kBusAnswer);
                        if (n % 2 == 0) {
                          const auto call = visit.next_call();
                          if (!call) return;
                          visit.line.send(mutated(bus_answer(call->serial, 0, good_result()).bytes(), visit.random));
                          visit.line.is_dropped(20);
                        } else if (auto channel = visit.wait_for_channel()) {
                          channel->send(mutated(news().bytes(), visit.random));
                          visit.serve_well();
                        }
                      }});
  }
}

}  // namespace

std::vector<ServiceInput> service_inputs(long count) {
  std::vector<ServiceInput> inputs;
  add_answers(inputs);
  add_conversations(inputs);
  add_callbacks(inputs);
  add_mutations(inputs, count);
  return inputs;
}

}  // namespace orvel::hostile
