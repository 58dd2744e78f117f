// Requests that are whole messages and still not what a service of the device takes.
#include <set>

#include "Inputs.h"
#include "support/Methods.h"

namespace orvel::hostile {
namespace {

using test::Bytes;
using test::Service;
using test::view_of;

enum Expect {
  kGood,      // success
  kDenied,    // an exception: the service has looked at the request
  kAnswered,  // either: a value may be strange and still a value
};

// One method under attack, each request over a connection of its own.
struct Attacked {
  Attack& attack;
  Service service;
  std::uint32_t code;
  bool with_endpoint;

  void expect(Expect expected, const std::string& what, std::string_view bytes) const {
    attack.close();
    const std::string name = test::kServices.at(service);
    BusLine& line = attack.open(name);
    if (with_endpoint) {
      attack.keep(send_with_channel(line, test::bus_call(name, 2, code, bytes, {{1}})));
    } else {
      line.send(test::bus_call(name, 2, code, bytes).bytes());
    }
    const Answer answer = expect_answer(line, 2);
    const bool good = answer.exception == 0 ? expected != kDenied : answer.exception < 0 && expected != kGood;
    if (answer.status == 0 && good) return;
    const std::string result = std::to_string(answer.status) + ", result " + std::to_string(answer.exception);
    throw Broken(what + ": status " + result);
  }
};

void damage(Attacked method, const std::string& header, const std::string& arguments) {
  const std::string whole = header + arguments;
  method.expect(kGood, "as it should be", whole);
  for (std::size_t at = header.size(); at < whole.size(); at += 4) {
    const std::string place = "word " + std::to_string((at - header.size()) / 4);
    method.expect(kDenied, "cut before " + place, whole.substr(0, at));
    for (const char* value : {"\xFF\xFF\xFF\x7F", "\0\0\0\x80"}) {
      method.expect(kAnswered, "an extreme " + place, std::string(whole).replace(at, 4, value, 4));
    }
  }
  method.expect(kDenied, "one byte too many", whole + "x");
  for (const std::size_t size : {0U, 12U}) method.expect(kDenied, "a cut header", whole.substr(0, size));
  for (const std::size_t at : {2U, 6U, 10U}) {
    method.expect(kDenied, "a wrong word of the header", std::string(whole).replace(at, 1, "?"));
  }
  for (const std::string interface : {"~", "'com.quarlo.orveldelegate.INothing'"}) {
    const Bytes other = test::wire("0 -1 1398362964 " + interface);
    method.expect(kDenied, "the interface " + interface, std::string(view_of(other)) + arguments);
  }
  for (const std::uint32_t code : {0U, 61U, UINT32_MAX}) {
    method.code = code;
    method.expect(kDenied, "code " + std::to_string(code), whole);
  }
}

void add_methods(Inputs& inputs) {
  std::set<std::pair<Service, unsigned>> known;
  for (const test::Method& method : test::kMethods) {
    const std::string name = method.name;
    const bool with_endpoint = name.find("egisterFor") != std::string::npos || name == "sendEvent";
    for (const test::Request& request : method.requests) {
      const auto service = static_cast<Service>(method.service);
      if (request.code == 0 || !known.insert({service, request.code}).second) continue;
      const std::string arguments = request.arguments + std::string(with_endpoint ? " 1447383888 0" : "");
      inputs.push_back({"device/" + std::string(test::kServices.at(service)) + '/' + std::to_string(request.code),
                        [=, code = request.code](Attack& attack) {
                          const Bytes header = test::request(test::kInterfaces.at(service));
                          damage({attack, service, code, with_endpoint}, std::string(view_of(header)),
                                 std::string(view_of(test::wire(arguments))));
                        }});
    }
  }
}

// The device's own commands send their orders so; the answer is an error, or a text that says what is wrong.
void order(Attack& attack) {
  for (const char* text : {"", R"({"order":)", R"({"order":7})", "[[[[[[[[[[[["}) {
    const std::string control = "orvel-sim-control";
    BusLine& line = attack.open(control);
    line.send(test::bus_call(control, 2, 0, view_of(Bytes().utf16(text))).bytes());
    static_cast<void>(expect_answer(line, 2));
  }
}

}  // namespace

void add_requests(Inputs& inputs) {
  add_methods(inputs);
  inputs.push_back({"device/control", order});
}

}  // namespace orvel::hostile
