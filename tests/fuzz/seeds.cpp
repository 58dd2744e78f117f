// Writes the inputs that fuzzing starts from: for each target the messages of the unit tests, whole and with the damages
// that they name, as files in a folder of the target's name.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <string>
#include <vector>

#include "BusBytes.h"
#include "support/Vesk.h"

namespace {

using orvel::fuzz::BusBytes;
using orvel::test::Bytes;
using orvel::test::wire;

const std::string kApplication =
    "1 2 's1' 's2' 's3' 's4' 's5' 's6' 's7' 's8' 's9' 1 'l1' ~ 2 'l2' 'l3' 1 2 3 4 5 6 256 7 8 9 't1' 't2' 't3' 10 ";
const std::string kMetadata = "1 -5 4 'k' 1 5 'k' 0 'v' 'b' 9 1 'n' -1 ";
const std::string kPackage = "1 1 'p' -7 '1.0' -4294967297L 1099511627776L ";
const std::string kResolved = "1 1 1 1 'a' 'c' 1 2 3 4 ";
const std::string kProcess = "1 'n' 1 2 2 'p' 'q' 3 4 100 6 7 8 'cp' 'cc' 9 10 2 1099511627776L ";
const std::string kEntries = "'a' 1 5 'b' 0 'x' 'a' 9 6 'b' 0 'y' 'c' 6 -4294967297L 'd' -1 '' 0 ~ ";
const std::string kIntent = "2 1 'action' 'data' 'text' 'package' 2 'its' 'class' ";
const std::string kHeader = "0 -1 1398362964 'descriptor' ";

// The messages of the readers. A text with blanks or beyond ASCII stands outside wire().
const std::pair<const char*, std::vector<Bytes>> kMessages[] = {
    {"Bundles",
     {wire("7 " + kEntries), wire("40 7 " + kEntries), wire("2147483647 " + kEntries), wire("-1 " + kEntries),
      wire("3 'a' 1 5 'b' 2 7 'c' 1 8"), wire("0 3 'a' 1 5 'b' 6 7L 'c' 1 8"), wire("1 ~ 0 ~ 7"),
      wire("0 31 'a' -1 'a' -1 'a' -1 'a' -1 'a' -1 'a' -1 'a' -1 'a' -1 'a' -1 'a' -1 'a' -1 'a' -1 'a' -1 'a' -1 'a' "
           "-1 "
           "'a' -1 'a' -1 'a' -1 'a' -1 'a' -1 'a' -1 'a' -1 'a' -1 'a' -1 'a' -1 'a' -1 'a' -1 'a' -1 'a' -1 'b' 1 5 "
           "'c' 0 "
           "'x'")}},
    {"Intent",
     {wire(kIntent + "1 7 " + kEntries), wire(kIntent + "0 0"), wire("1 1 'a' ~ ~ ~ 1 '' 1 0"), wire("0 40 'a'"),
      wire("1 0 'a'"), wire("-1 -1 'a'"), wire("1 1 'a' ~ ~ ~ -1 -1 7"), wire(kIntent + "2 2147483647 'a' 1 5")}},
    {"Components",
     {wire("'p' 'c' 7"), wire("~ 'c'"), wire("'' 'c'"), wire("'p' ~"), wire(kResolved),
      wire("3 " + kResolved + kResolved), wire("2 0 " + kResolved + "-1 1 0 1 1 1 0 " + kResolved),
      wire("2147483647 " + kResolved), wire("1 1 'a' 'c'"), wire("-5 " + kResolved), wire("2 " + kResolved).cut(40)}},
    {"Packages",
     {wire(kApplication + kMetadata), wire(kApplication + "0"), wire(kPackage + kApplication + kMetadata),
      wire(kPackage + "-1 7"), wire("1 0 7"), wire("0"), wire(kPackage + kApplication).cut(60),
      wire("1 1 ~ ~ ~ ~ ~ ~ ~ ~ ~ 1000 ~ ~ 1001 ~ -1 0 0 0 0 0 0 0 0 0 0 ~ ~ ~ 0 1")}},
    {"Processes",
     {wire(kProcess), wire("2 " + kProcess + "0 " + kProcess), wire("1 1 ~ 1 2 ~ 3 4 100 6 7 8 '' 9 10 0 -1L"),
      wire("2147483647 " + kProcess), wire("1 1 'n' 0 0 1000 ~ ~"), wire("0 " + kProcess), wire("-1"),
      wire("2 " + kProcess + kProcess).cut(30)}},
    {"Device",
     {wire("1 'a' 'bb' 'ccc' 'type' 'e' 'f' 'g' 'h' 'i' 'j'"), wire("0 'a'"), wire("-1"),
      wire("1 1 2 'n1' 'n2' 'CONNECTED' 'n4' 3 4 5 6 'n5' 'n6'"),
      wire("1 1 2 'n1' 'n2' '<unknown>' 'n4' 3 4 5 6 'n5' ~"), wire("1 'a' 'b' 'c'").cut(5)}},
    {"Assistant",
     {wire("'a' 'b' 'c' 'd' 'e' 'f' 'g'"), wire("'a' 'b' 'c' 'd' 'e'").cut(3), wire("1 0"), wire("1 5"), wire("1 6"),
      wire("-1 3"), wire("0 0"), wire("1 -1"), wire("1"), wire("~ ~ ~ ~ ~ ~ ~")}},
    {"ReplyFrame",
     {wire("0 'name'"), wire("0 ~"), wire("-5 'message' 0"), wire("-5 'message' 1 'trace'"), wire("-5 ~ 2 ~"),
      wire("0 'name'").cut(4), wire("-1"), Bytes(wire("0")).utf16(u"\u00e9\U0001F600"),
      Bytes(wire("0")).utf16(std::u16string(u"a\0b", 3)), Bytes(wire("0")).utf16(u"\xd800x\xdfff")}},
};

// One input of a target that draws values before it takes the rest.
Bytes drawn(std::initializer_list<unsigned> values, const Bytes& rest = {}) {
  return Bytes().raw(values).append(rest);
}

Bytes bytesOf(const std::string& text) {
  return {text.data(), text.size()};
}

std::vector<Bytes> primitives() {
  const Bytes all = wire("-2 'hi' 3 'a' ~ '' 1099511627776L").f64(1.5);
  return {drawn({4, 0, 3, 4, 1}, all),
          drawn({4, 2, 2, 1, 1}, all),
          drawn({1, 4}, wire("2147483647 'a'")),
          drawn({2, 4, 0}, wire("-1 77")),
          drawn({2, 4, 3}, wire("5 'a' 'b'")),
          drawn({1, 3}, Bytes().utf16(u"\U0001F600\u00e9")),
          drawn({1, 3}, wire("-2 0")),
          drawn({1, 3}, Bytes().utf16(std::u16string(u"ab\0cd", 5))),
          drawn({1, 3}, wire("5 0")),
          drawn({2, 3, 3}, wire("'text'").cut(6))};
}

std::vector<Bytes> endpoints() {
  const auto message = [](unsigned which, unsigned kind, unsigned code, const std::string& words) {
    return drawn({which, kind, code, 0}, wire(words));
  };
  return {message(0, 1, 1, kHeader + "'key' 'value'"),
          message(0, 1, 1, kHeader + "'key' ~"),
          message(0, 0, 1, kHeader),
          message(1, 0, 1, kHeader + kIntent + "1 7 " + kEntries),
          message(1, 0, 1, "0 -1"),
          message(1, 1, 1, kHeader),
          message(2, 0, 1, ""),
          message(2, 0, 6, ""),
          message(2, 0, 3, ""),
          message(2, 1, 1, ""),
          message(3, 0, 1, "'a' 'b' 'c' 'd' 'e' 'f' 'g'"),
          message(4, 0, 1, kHeader + "1 0"),
          message(4, 0, 1, kHeader + "1"),
          message(4, 0, 1, kHeader + "0 0")};
}

std::vector<Bytes> written() {
  const auto text = [](const std::string& ascii) {
    return Bytes().raw({static_cast<unsigned>(ascii.size())}).append(bytesOf(ascii));
  };
  const Bytes three = text("a").append(text("")).append(text("\xe0\x90"));
  const Bytes seven = Bytes(three).append(three).append(text("7"));
  return {
      drawn({0}, Bytes(seven).raw({1})),
      drawn({1}, Bytes(three).raw({0}).append(text("key")).append(text("v")).raw({1}).append(text("l")).i64(-5)),
      drawn({1}, text("h").append(text("i")).raw({2}).append(text("d")).f64(1.5).raw({4}).append(text("b")).raw({1})),
      drawn({1}, text("h").append(text("i")).raw({5}).append(text("")).i32(5).raw({5}).append(text("")).i32(15)),
      drawn({2}, Bytes().raw({0}).append(text("a")).i32(-2).raw({1}).append(text("b")).append(text("x"))),
      drawn({3}, Bytes(three)
                     .append(three)
                     .i32(0x10000000)
                     .raw({2})
                     .append(text("c"))
                     .append(text("d"))
                     .raw({2})
                     .append(text("k"))
                     .i64(6)
                     .raw({0})
                     .append(text("n"))
                     .i32(7))};
}

std::vector<Bytes> hostMessages() {
  return {drawn({3, 0, 1, 0, 0, 0, 3, 2, 'h', 'i', 4, 1, 3, 0, 3, 4}),
          drawn({2, 3, 4, 0xf0, 0x9f, 0x98, 0x80, 5, 0, 0, 1, 3}, wire("'text'")),
          drawn({2, 3, 3, 0xc3, 0x28, 0xff, 6, 5, 0, 2, 3, 0}, wire("-2")),
          drawn({0, 3, 4, 1, 2}, wire("1447383888 2 7L 1")),
          drawn({1, 3, 4, 0xed, 0xa0, 0x80, 0xf4, 1, 3}, wire("2147483647"))};
}

std::vector<Bytes> hostWires() {
  return {drawn({0, 4, 'a', '/', 0xc3, '%'}),
          drawn({1, 1, 0, 2, 1, 9, 0, 0, 0, 3, 2, 'h', 'i'}),
          drawn({1, 0, 0, 2, 0, 5, 0, 0, 0, 3, 1, 'x'}),
          drawn({1, 1, 0, 3, 1, 1, 0, 0, 0, 3, 0, 4, 1, 2}),
          drawn({1, 1, 1, 2, 2, 5, 0, 0, 0, 0, 0, 0, 0, 1, 1, 0, 0, 0}),
          drawn({1, 1, 0, 1, 5, 1})};
}

std::vector<Bytes> hostSockets() {
  using orvel::fuzz::busCall;
  const std::string path = orvel::fuzz::kServicePath;
  const std::string body = BusBytes().u32(1).bytes(std::string("\7\0\0\0", 4)).str();
  const std::string marked = BusBytes().u32(2).bytes("PSEV").u32(8).u64(5).str();
  const std::string open = busCall(path, "Open", "", "");
  const std::string call = busCall(path, "Call", "uay", body);
  const std::string answer("l\2\1\1\x0c\0\0\0\1\0\0\0\x10\0\0\0\5\1u\0\1\0\0\0\x08\1g\0\3iay\0\0\0\0\0\0\0\0\0\0\0\0\0",
                           44);
  return {drawn({0, 0}, bytesOf(orvel::fuzz::handshake() + open + call)),
          drawn({0, 1}, bytesOf(orvel::fuzz::handshake())),
          drawn({0, 0}, bytesOf(std::string("\0AUTH ANONYMOUS\r\nBEGIN\r\n", 24))),
          drawn({1, 0}, bytesOf(open + call)),
          drawn({1, 7}, bytesOf(busCall("/service/other", "Open", "", ""))),
          drawn({2, 0}, bytesOf(call + call)),
          drawn({2, 3}, bytesOf(busCall(path, "Call", "uayat", marked))),
          drawn({2, 0}, bytesOf(busCall(path, "Call", "uayath", marked))),
          drawn({2, 0}, bytesOf(busCall(path, "Call", "s", BusBytes().text("x").str()))),
          drawn({2, 0}, bytesOf(busCall(path, "Release", "tu", BusBytes().u64(5).u32(1).str()))),
          drawn({3, 0, 1}, wire("7")),
          drawn({3, 5, 2}, wire("1447383888 0")),
          drawn({4, 0, 1}, wire("7")),
          drawn({5, 0, 1}, bytesOf(answer)),
          drawn({5, 0, 0}, bytesOf("hello"))};
}

std::vector<Bytes> scenarios() {
  std::vector<Bytes> inputs;
  for (const char* text :
       {R"({})", R"([])", R"({"delegate": {"name": "Living room", "customerId": "", "settings": {"some_key": "42"}}})",
        R"({"power": {"screenOn": false, "faults": {"isInteractive": {"delayMs": 300}, "*": {"hang": true}}}})",
        R"({"delegate": {"nmae": "x"}})", R"({"delegate": {"settings": {"foo": 1}, "info": ["a", "b"]}})",
        R"({"packages": {"packages": {"p": {"versionCode": 7, "metaData": {"m": "dark", "n": 1}, "receivers":
          [{"class": "p.R", "actions": ["a"]}], "launchActivity": "p.A", "resources": {"17": "r"}, "uid": 10007}}}})",
        R"({"activity": {"processes": {"p": {"pid": 1, "importance": 100, "packages": ["p"], "focused": true,
          "reason": {"package": "q", "class": "q.S"}}}}})",
        R"({"events": {"reply": 1, "result": 4, "resultDelayMs": 5, "resultMode": "twice"}, "metrics":
          {"interfaceVersion": 1}, "connectivity": {"networkConnected": false}})",
        R"({"delegate": {"faults": {"getDeviceName": {"exception": {"code": -3, "message": "m", "trace": "t"},
          "truncateTo": 3, "error": -121}}}})",
        R"({"delegate": {"name": "\u0000"}})", R"({"events": {"result": 1e999}})", R"({"events": {"result": 1.5}})",
        R"({"delegate": )"}) {
    inputs.push_back(bytesOf(text));
  }
  return inputs;
}

// Entries of one recording each, but for the header.
std::vector<Bytes> recordings() {
  const std::string header = R"({"format":"orvel-recording","version":1,"masked":false})";
  const std::string at = R"({"timeMs":5,"pid":7,"servicePid":9,"number":1,)";
  std::vector<Bytes> inputs;
  for (
      const char* entries :
      {R"("service":"delegate","method":"getSecureSetting","code":15,"arguments":{"key":"k"},"reply":"1","durationMs":2})",
       R"("service":"delegate","method":"getSecureSetting","code":15,"arguments":{},"reply":"1"})",
       R"("service":"delegate","method":"getDeviceInfo","code":14,"arguments":{},"reply":["a","b"],"truncatedTo":4})",
       R"("service":"delegate","method":"getDeviceName","code":33,"arguments":{},"reply":"string"}
)"
       R"({"timeMs":6,"pid":7,"servicePid":9,"number":2,"service":"delegate","notification":"broadcast","code":1,)"
       R"("endpoint":3,"arguments":{"action":"a","extras":[{"key":"k","type":"string","value":"of string"}]}})",
       R"("service":"delegate","notification":"broadcast","code":1,"arguments":{"action":"a"}})",
       R"("service":"coordinator","notification":"directive","code":1,"arguments":{"namespace":"N","texts":["a",null]}})",
       R"("service":"coordinator","notification":"directive","code":1,"arguments":{"texts":[]}})",
       R"("service":"power","method":"isInteractive","code":1,"arguments":{},"hangs":true}
)"
       R"({"gap":{"after":1,"entries":3}})",
       R"("service":"power","method":"isInteractive","code":1,"arguments":{},"exception":{"code":-5,"message":"m"}})",
       R"("service":"events","method":"sendEvent","code":2,"arguments":{"metadata":{"namespace":"N"}},"endpoints":[3],)"
       R"("error":-121,"timeUs":5100,"shortened":["arguments/metadata/event3"]})"}) {
    inputs.push_back(bytesOf(header + "\n" + at + entries + "\n"));
  }
  return inputs;
}

// As seed-0 and so on. False when one cannot be written.
bool write(const std::filesystem::path& folder, const std::vector<Bytes>& inputs) {
  std::filesystem::create_directories(folder);
  for (std::size_t n = 0; n < inputs.size(); ++n) {
    std::ofstream file(folder / ("seed-" + std::to_string(n)), std::ios::binary);
    file.write(reinterpret_cast<const char*>(inputs[n].data()), static_cast<std::streamsize>(inputs[n].size()));
    if (!file.flush()) return false;
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  std::filesystem::path corpus;
  CLI::App app("Writes the inputs that fuzzing starts from.");
  app.add_option("folder", corpus, "Where each target gets a folder of its own")->required();
  CLI11_PARSE(app, argc, argv);

  bool good = true;
  for (const auto& [target, messages] : kMessages) good = write(corpus / target, messages) && good;
  const std::pair<const char*, std::vector<Bytes>> drawing[] = {
      {"Primitives", primitives()},    {"Endpoints", endpoints()}, {"Written", written()},
      {"HostMessage", hostMessages()}, {"HostWire", hostWires()},  {"HostSocket", hostSockets()},
      {"Scenario", scenarios()},       {"Recording", recordings()}};
  for (const auto& [target, inputs] : drawing) good = write(corpus / target, inputs) && good;
  if (!good) std::fprintf(stderr, "fuzz_seeds: %s: cannot be written\n", corpus.c_str());
  return good ? 0 : 1;
}
