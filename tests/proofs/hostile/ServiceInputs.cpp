// What services do to their clients that breaks the rules. Each plays the delegate service for one life of a client,
// which asks for a name, registers two receivers, and asks another service whether the screen is on.
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

std::string good_answer(std::uint32_t to) {
  return bus_answer(to, 0, view_of(test::wire("0 'Rogue'"))).bytes();
}

// Each answers every call of the client in its way. Answers of another type are among the host runtime's own tests.
void add_answers(std::vector<ServiceInput>& inputs) {
  using Answer = void (*)(BusLine & line, std::uint32_t serial);
  const std::pair<const char*, Answer> rows[] = {
      {"twice", [](BusLine& line, std::uint32_t to) { line.send(good_answer(to) + good_answer(to)); }},
      {"of-another-call-first",
       [](BusLine& line, std::uint32_t to) { line.send(good_answer(to + 1) + good_answer(to)); }},
      {"to-the-opening", [](BusLine& line, std::uint32_t) { line.send(good_answer(1)); }},
      {"a-call", [](BusLine& line, std::uint32_t) { line.send(call_to(test::kDelegate, 9, 33).bytes()); }},
      {"half", [](BusLine& line, std::uint32_t to) { line.send(good_answer(to).substr(0, 40)); }},
      {"half-and-the-end",
       [](BusLine& line, std::uint32_t to) {
         line.send(good_answer(to).substr(0, 40));
         ::shutdown(line.descriptor(), SHUT_RDWR);
       }},
      {"8-mib",
       [](BusLine& line, std::uint32_t to) { line.send(bus_answer(to, 0, std::string(kMostBytes, '\0')).bytes()); }},
      {"8-mib-and-1",
       [](BusLine& line, std::uint32_t to) {
         line.send(bus_answer(to, 0, std::string(kMostBytes + 1, '\0')).bytes());
       }},
      {"127-mib-a-byte-at-a-time",  // every byte in time, and the whole not
       [](BusLine& line, std::uint32_t to) {
         line.send(with(bus_answer(to, 0, ""), &BusMessage::body_length, 127U << 20U).bytes());
         while (line.send("x")) {
         }
       }},
  };
  for (const auto& [what, answer] : rows) {
    inputs.push_back({"service/answer/"s + what, [answer = answer](Visit& visit) {
                        visit.line.send(kBusAnswer);
                        while (const auto call = visit.next_call()) answer(visit.line, call->serial);
                      }});
  }
  for (const std::string& greeting : {""s, kBusAnswer.substr(0, 20), "REJECTED EXTERNAL\r\n"s, kBusAnswer + kBusAnswer,
                                      kBusAnswer + bus_answer(2, 0, "").bytes(), std::string(256, '\xFF') + "\r\n"}) {
    inputs.push_back({"service/greeting/of-" + std::to_string(greeting.size()), [greeting](Visit& visit) {
                        visit.line.send(greeting);
                        visit.serve_well();
                      }});
  }
}

std::string setting_news() {
  const Bytes arguments = test::wire("'volume_alarm' '7'");
  return std::string(view_of(test::request("com.quarlo.orveldelegate.ISettingsReceiver", arguments)));
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
  const std::pair<const char*, std::string> rows[] = {
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
                          visit.line.send(mutated(good_answer(call->serial), visit.random));
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
  add_callbacks(inputs);
  add_mutations(inputs, count);
  return inputs;
}

}  // namespace orvel::hostile
