// Requests that are whole messages and still not what a service of the device takes.
#include <set>

#include "Inputs.h"

namespace orvel::hostile {
namespace {

using test::Service;

// The methods that take an endpoint behind their other arguments.
const std::set<std::pair<Service, unsigned>> kSubscriptions = {{test::kDelegate, 28},
                                                               {test::kDelegate, 34},
                                                               {test::kConnectivity, 4},
                                                               {test::kConnectivity, 5},
                                                               {test::kEvents, 2}};

enum Expect {
  kGood,      // success
  kRefused,   // an exception: the service has looked at the request
  kAnswered,  // either: a value may be strange and still a value
};

// One method under attack, each request on a connection of its own.
struct Attacked {
  Target& target;
  Service service;
  std::uint32_t code;
  bool with_endpoint;

  void expect(Expect expected, const std::string& what, std::string_view bytes) const {
    target.close();
    BusLine& line = target.open(service);
    const std::string name = test::kServices.at(service);
    if (with_endpoint) {
      target.keep(send_with_channel(line, test::bus_call(name, 2, code, bytes, {{1}})));
    } else {
      line.send(test::bus_call(name, 2, code, bytes).bytes());
    }
    const Answer answer = target.expect_answer(line, 2);
    const int result = answer.word(0);
    if (answer.status == 0 && (result == 0 ? expected != kRefused : result < 0 && expected != kGood)) return;
    throw Broken(what + ": status " + std::to_string(answer.status) + ", result " + std::to_string(result));
  }
};

void damage_arguments(const Attacked& method, const std::string& header, const std::string& whole) {
  method.expect(kGood, "as it should be", whole);
  for (std::size_t at = header.size(); at < whole.size(); at += 4) {
    const std::string place = "word " + std::to_string((at - header.size()) / 4);
    method.expect(kRefused, "cut before " + place, whole.substr(0, at));
    for (const char* value : {"\xFF\xFF\xFF\x7F", "\0\0\0\x80"}) {
      method.expect(kAnswered, "an extreme " + place, std::string(whole).replace(at, 4, value, 4));
    }
  }
  if (whole != header) method.expect(kRefused, "cut inside a word", whole.substr(0, whole.size() - 1));
  method.expect(kRefused, "one word too many", whole + std::string(4, '\0'));
  method.expect(kRefused, "one byte too many", whole + "x");
}

void damage_header(Attacked method, const std::string& header, const std::string& whole) {
  for (std::size_t size = 0; size < header.size(); size += 12) {
    method.expect(kRefused, "header cut to " + std::to_string(size), whole.substr(0, size));
  }
  for (const std::size_t at : {2U, 6U, 10U}) {
    std::string bytes = whole;
    bytes[at] ^= 1;
    method.expect(kRefused, "a wrong word of the header", bytes);
  }
  for (const std::string interface : {"~", "''", "'com.quarlo.orveldelegate.INothing'", "2147483647"}) {
    const std::string other(view_of(test::wire("0 -1 1398362964 " + interface)));
    method.expect(kRefused, "the interface " + interface, other + whole.substr(header.size()));
  }
  for (const std::uint32_t code : {0U, 61U, 1U << 31U, UINT32_MAX}) {
    method.code = code;
    method.expect(kRefused, "code " + std::to_string(code), whole);
  }
}

void add_methods(std::vector<ClientInput>& inputs) {
  std::set<std::pair<Service, unsigned>> known;
  for (const test::Method& method : test::kMethods) {
    for (const test::Request& request : method.requests) {
      const auto service = static_cast<Service>(method.service);
      if (request.code == 0 || !known.insert({service, request.code}).second) continue;
      const bool with_endpoint = kSubscriptions.count({service, request.code}) != 0;
      Bytes arguments = test::wire(request.arguments);
      if (with_endpoint) arguments.i32(kEndpointMark).i32(0);
      const std::string header(view_of(test::request(test::kInterfaces.at(service))));
      const std::string whole = header + std::string(view_of(arguments));
      inputs.push_back({"device/" + std::string(test::kServices.at(service)) + '/' + std::to_string(request.code),
                        [=, code = request.code](Target& target) {
                          const Attacked attacked{target, service, code, with_endpoint};
                          damage_arguments(attacked, header, whole);
                          damage_header(attacked, header, whole);
                        }});
    }
  }
  inputs.push_back({"device/references", [](Target& target) {
                      const std::string key(
                          view_of(test::request(test::kInterfaces[test::kDelegate], test::wire("'key'"))));
                      const auto expect_refused = [&](const char* what, bool with_endpoint, const char* mark) {
                        const Attacked method{target, test::kDelegate, 34, with_endpoint};
                        method.expect(kRefused, what, key + std::string(view_of(test::wire(mark))));
                      };
                      expect_refused("to nothing", false, "1447383888 0");
                      expect_refused("beyond the last", true, "1447383888 1");
                      expect_refused("negative", true, "1447383888 -1");
                      expect_refused("without a mark", true, "707406378 0");
                    }});
}

// The device's own commands send their orders in the same way.
void add_orders(std::vector<ClientInput>& inputs) {
  const std::string nested = std::string(90, '[') + std::string(90, ']');
  const std::string orders[] = {
      "",
      R"({"order":)",
      R"({"order":7})",
      R"({"order":"dance"})",
      R"({"order":"change","change":[]})",
      R"({"order":"change","change":{"path":"/x/y","value":1}})",
      R"({"order":"change","change":{"path":"a~9b","value":1}})",
      R"({"order":"change","change":{"path":"/power/screenOn","value":[]}})",
      R"({"order":"kill","service":"no-such-service"})",
      R"({"order":"attach"})",
      R"({"order":"record","entries":7})",
      R"({"order":"event","service":"delegate","event":[[]]})",
      std::string(1'000'000, '['),
      R"({"order":"change","change":{"path":"/delegate/settings/deep","value":)" + nested + "}}",
      R"({"order":"event","service":"delegate","event":{"action":"a","extras":{"x":)" + nested + "}}}",
  };
  for (const std::string& order : orders) {
    inputs.push_back({"device/control/" + order.substr(0, 60), [order](Target& target) {
                        const std::string control = "orvel-sim-control";
                        BusLine& line = target.open(control);
                        line.send(test::bus_call(control, 2, 0, view_of(Bytes().utf16(order))).bytes());
                        // An error, or a text that says what is wrong.
                        static_cast<void>(target.expect_answer(line, 2));
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
