#include "Inputs.h"

#include <sys/socket.h>

#include <cstring>

#include "support/Methods.h"
#include "support/Process.h"
#include "vesk/vesk_service.h"

namespace orvel::hostile {

using test::view_of;

BusLine& Attack::connect(const std::string& service) {
  BusLine& line = keep(BusLine::to(std::string(vesk_runtime_directory()) + '/' + service));
  line.send(test::kBusHello);
  if (!line.finish_handshake(kPatienceMs)) throw Broken("no answer to a good handshake");
  return line;
}

BusLine& Attack::open(const std::string& service) {
  BusLine& line = connect(service);
  line.send(test::bus_open(service).bytes());
  return line;
}

std::optional<std::uint32_t> Visit::next_call() {
  constexpr int kVisitMs = 5000;  // longer than any client of these tests waits
  m_waits = true;
  auto message = line.receive(kVisitMs);
  while (message && message->member != "Call") message = line.receive(kVisitMs);
  m_waits = false;
  return message ? std::optional(message->serial) : std::nullopt;
}

void Visit::serve_well(const std::function<void(Visit&, BusLine& channel)>& act) {
  std::deque<BusLine> channels;
  line.send(test::kBusAnswer);
  while (const auto call = next_call()) {
    const std::size_t known = channels.size();
    for (vesk::UniqueFd& socket : line.received_descriptors()) {
      channels.emplace_back(std::move(socket)).send(test::kBusAnswer);
    }
    line.received_descriptors().clear();
    line.send(name_answer(*call).bytes());
    if (channels.size() != known) act(*this, channels.back());
  }
}

Answer expect_answer(BusLine& line, std::uint32_t serial) {
  while (const auto message = line.receive(kPatienceMs)) {
    if (message->type != test::kBusReturn || message->reply_serial != serial) continue;
    constexpr std::size_t kHead = 8;  // the status, and the length of the bytes
    if (message->body.size() < kHead) break;
    Answer answer;
    std::memcpy(&answer.status, message->body.data(), sizeof(answer.status));
    answer.bytes = message->body.substr(kHead);
    if (answer.bytes.size() >= 4) std::memcpy(&answer.exception, answer.bytes.data(), sizeof(answer.exception));
    return answer;
  }
  throw Broken("no answer");
}

void expect_dropped(BusLine& line) {
  if (!line.is_dropped(kPatienceMs)) throw Broken("the connection was not closed");
}

void expect_served(BusLine& line, std::uint32_t serial) {
  constexpr std::uint32_t kIsInteractive = 1;
  line.send(call_to(test::kPower, serial, kIsInteractive).bytes());
  const Answer answer = expect_answer(line, serial);
  if (answer.status != 0 || answer.bytes != view_of(test::wire("0 1"))) throw Broken("a wrong answer");
}

BusMessage call_to(test::Service service, std::uint32_t serial, std::uint32_t code, const std::string& arguments,
                   const test::Endpoints& endpoints) {
  const test::Bytes request = test::request(test::kInterfaces.at(service), test::wire(arguments));
  return test::bus_call(test::kServices.at(service), serial, code, view_of(request), endpoints);
}

BusMessage registration(std::uint32_t serial, const std::vector<std::uint64_t>& endpoints) {
  return call_to(test::kDelegate, serial, 34, "'hostile' 1447383888 0", endpoints);
}

void change_setting() {
  static int s_value = 0;
  test::run({"orvel-sim", "set", "settings", "hostile", std::to_string(++s_value)});
}

BusMessage name_answer(std::uint32_t to) {
  return test::bus_answer(to, 0, view_of(test::wire("0 'Rogue'")));
}

BusMessage setting_news(bool answered) {
  const test::Bytes news =
      test::request("com.quarlo.orveldelegate.ISettingsReceiver", test::wire("'volume_alarm' '7'"));
  return test::bus_callback(1, 1, 1, view_of(news), answered);
}

BusLine send_with_channel(BusLine& line, const BusMessage& call, bool greeted) {
  auto [mine, theirs] = test::socket_pair(SOCK_STREAM);
  BusLine channel(std::move(mine));
  if (greeted) channel.send(test::kBusHello);
  line.send(call.bytes(), {theirs.get()});
  return channel;
}

}  // namespace orvel::hostile
