// Requests that are whole messages and still not what a service of the device takes.
#include <set>
#include <tuple>

#include "Inputs.h"

namespace orvel::hostile {
namespace {

using test::kServices;
using test::Service;

constexpr std::uint32_t kSerial = 2;

bool brings_endpoint(Service service, unsigned code) {
  return std::set<std::pair<Service, unsigned>>{{test::kDelegate, 28},
                                                {test::kDelegate, 34},
                                                {test::kConnectivity, 4},
                                                {test::kConnectivity, 5},
                                                {test::kEvents, 2}}
             .count({service, code}) != 0;
}

// The request goes out on a connection of its own; what comes back is the answer of the service.
Answer answer_to(Target& target, Service service, std::uint32_t code, std::string_view bytes, bool endpoint) {
  BusLine& line = target.open(service);
  if (endpoint) {
    const BusLine channel =
        send_with_channel(line, test::bus_call(kServices.at(service), kSerial, code, bytes, {1}, true));
    return target.expect_answer(line, kSerial);
  }
  line.send(test::bus_call(kServices.at(service), kSerial, code, bytes).bytes());
  return target.expect_answer(line, kSerial);
}

enum Expect {
  kGood,      // success
  kRefused,   // an exception: the request was looked at and found wanting
  kAnswered,  // either: a value may be strange and still a value
};

// Sends one request in many forms. Each broken form must be refused by an exception of the service.
class Requests {
 public:
  Requests(Target& target, Service service, unsigned code)
      : m_target(target), m_service(service), m_code(code), m_endpoint(brings_endpoint(service, code)) {}

  void expect(Expect expected, const std::string& what, std::string_view bytes) {
    this->expect(expected, what, bytes, m_code);
  }
  void expect(Expect expected, const std::string& what, std::string_view bytes, std::uint32_t code) {
    m_target.close();
    const Answer answer = answer_to(m_target, m_service, code, bytes, m_endpoint);
    const bool refused = answer.status == 0 && answer.word(0) < 0;
    const bool good = answer.status == 0 && answer.word(0) == 0;
    if (expected == kGood ? good : expected == kRefused ? refused : good || refused) return;
    throw Broken(what + ": status " + std::to_string(answer.status) + ", result " + std::to_string(answer.word(0)));
  }

  void damage_arguments(const std::string& header, const std::string& whole) {
    expect(kGood, "as it should be", whole);
    for (std::size_t at = header.size(); at < whole.size(); at += 4) {
      const std::string place = "word " + std::to_string((at - header.size()) / 4);
      expect(kRefused, "cut before " + place, whole.substr(0, at));
      for (const char* value : {"\xFF\xFF\xFF\x7F", "\0\0\0\x80"}) {
        expect(kAnswered, "an extreme " + place, std::string(whole).replace(at, 4, value, 4));
      }
    }
    if (whole != header) expect(kRefused, "cut inside a word", whole.substr(0, whole.size() - 1));
    expect(kRefused, "one word too many", whole + std::string(4, '\0'));
    expect(kRefused, "one byte too many", whole + "x");
  }

  void damage_header(const std::string& header, const std::string& whole) {
    for (std::size_t size = 0; size < header.size(); size += 12) {
      expect(kRefused, "header cut to " + std::to_string(size), whole.substr(0, size));
    }
    for (const std::size_t at : {2, 6, 10}) {
      std::string bytes = whole;
      bytes[at] ^= 1;
      expect(kRefused, "a wrong word of the header", bytes);
    }
    for (const char* interface : {"~", "''", "'com.quarlo.orveldelegate.INothing'", "2147483647"}) {
      const Bytes other = test::wire("0 -1 1398362964 " + std::string(interface));
      expect(kRefused, "the interface " + std::string(interface),
             std::string(view_of(other)) + whole.substr(header.size()));
    }
    for (const std::uint32_t code : {0U, 61U, 1U << 31U, UINT32_MAX}) {
      expect(kRefused, "code " + std::to_string(code), whole, code);
    }
  }

 private:
  Target& m_target;
  const Service m_service;
  const unsigned m_code;
  const bool m_endpoint;
};

void add_methods(std::vector<ClientInput>& inputs) {
  std::set<std::pair<Service, unsigned>> known;
  std::set<Service> services;
  for (const test::Method& method : test::kMethods) {
    for (const test::Request& request : method.requests) {
      const auto service = static_cast<Service>(method.service);
      if (request.code == 0 || !known.insert({service, request.code}).second) continue;
      const bool is_first = services.insert(service).second;
      Bytes arguments = test::wire(request.arguments);
      if (brings_endpoint(service, request.code)) arguments.i32(kEndpointMark).i32(0);
      const std::string header(view_of(test::request(test::kInterfaces.at(service))));
      const std::string whole = header + std::string(view_of(arguments));
      inputs.push_back({"device/" + std::string(kServices.at(service)) + '/' + std::to_string(request.code),
                        [=, code = request.code](Target& target) {
                          Requests requests(target, service, code);
                          requests.damage_arguments(header, whole);
                          if (is_first) requests.damage_header(header, whole);
                        }});
    }
  }
  inputs.push_back({"device/without-methods", [](Target& target) {
                      Requests requests(target, test::kDirectives, 0);
                      for (const std::uint32_t code : {0U, 1U, UINT32_MAX})
                        requests.expect(kRefused, "a code", "", code);
                    }});
  inputs.push_back(
      {"device/references", [](Target& target) {
         const std::tuple<const char*, bool, const char*> rows[] = {{"to nothing", false, "1447383888 0"},
                                                                    {"beyond the last", true, "1447383888 1"},
                                                                    {"negative", true, "1447383888 -1"},
                                                                    {"without a mark", true, "707406378 0"}};
         for (const auto& [what, endpoint, words] : rows) {
           const Bytes bytes =
               test::request(test::kInterfaces[test::kDelegate], test::wire("'key' " + std::string(words)));
           const Answer answer = answer_to(target, test::kDelegate, 34, view_of(bytes), endpoint);
           if (answer.status != 0 || answer.word(0) >= 0) throw Broken(what);
         }
       }});
}

// The device's own commands send their orders in the same way.
void add_orders(std::vector<ClientInput>& inputs) {
  const std::string nested = std::string(90, '[') + std::string(90, ']');
  const std::string orders[] = {
      "screen off",
      R"({"order":)",
      "[1,2,3]",
      "null",
      "{}",
      R"({"order":7})",
      R"({"order":"dance"})",
      R"({"order":"change"})",
      R"({"order":"change","change":[]})",
      R"({"order":"change","change":{"path":"/x/y","value":1}})",
      R"({"order":"change","change":{}})",
      R"({"order":"change","change":{"path":"","value":1}})",
      R"({"order":"change","change":{"path":"a~9b","value":1}})",
      R"({"order":"change","change":{"path":"/power/screenOn","value":[]}})",
      R"({"order":"kill","service":"no-such-service"})",
      R"({"order":"kill"})",
      R"({"order":"attach"})",
      R"({"order":"ready"})",
      R"({"order":"record","entries":7})",
      R"({"order":"event","event":{}})",
      R"({"order":"event","service":"delegate","event":[[]]})",
      nested,
      std::string(1'000'000, '[') + std::string(1'000'000, ']'),
      std::string(1'000'000, '['),
      R"({"order":"change","change":{"path":"/delegate/settings/deep","value":)" + nested + "}}",
      R"({"order":"event","service":"delegate","event":{"action":"a","extras":{"x":)" + nested + "}}}",
  };
  std::vector<Bytes> requests = {Bytes(), Bytes().null()};
  for (const std::string& order : orders) requests.push_back(Bytes().utf16(order));
  for (std::size_t n = 0; n < requests.size(); ++n) {
    inputs.push_back({"device/control/" + std::to_string(n), [bytes = requests[n]](Target& target) {
                        const std::string control = "orvel-sim-control";
                        BusLine& line = target.open(control);
                        line.send(test::bus_call(control, kSerial, 0, view_of(bytes)).bytes());
                        // An error, or a text that says what is wrong.
                        static_cast<void>(target.expect_answer(line, kSerial));
                      }});
  }
}

}  // namespace

std::vector<ClientInput> service_request_inputs() {
  std::vector<ClientInput> inputs;
  add_methods(inputs);
  add_orders(inputs);
  return inputs;
}

}  // namespace orvel::hostile
