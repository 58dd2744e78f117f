#include "Program.h"

#include <sstream>

namespace orvel::fuzz {

std::string name_of(Method method) {
#define ORVEL_NAME(name) #name,
  static const std::array<const char*, kMethodCount> names = {ORVEL_METHODS(ORVEL_NAME)};
#undef ORVEL_NAME
  // The two overloads have one name.
  if (method == k_getApplicationInfoMetaDataInt || method == k_getApplicationInfoMetaDataText)
    return "getApplicationInfoMetaData";
  return names.at(method);
}

std::string shown(bool value) {
  return value ? "true" : "false";
}

std::string shown(const std::string& text) {
  return "\"" + text + "\"";
}

std::string shown(const std::vector<std::string>& texts) {
  std::string all;
  for (const std::string& text : texts) all += (all.empty() ? "" : ", ") + shown(text);
  return "[" + all + "]";
}

namespace {

std::string describe(const Call& call) {
  std::ostringstream out;
  out << name_of(call.method) << "(" << shown(std::vector<std::string>(call.texts.begin(), call.texts.end())) << ", "
      << call.number << ", " << call.flags << (call.null ? ", null" : "") << ", callback " << call.callback << ")";
  return out.str();
}

}  // namespace

std::string describe(const Event& event, const Trace& trace) {
  const auto service = [&event] { return std::string(kServices.at(static_cast<std::size_t>(event.a))); };
  std::ostringstream out;
  switch (event.kind) {
    case Kind::kStart:
      out << "start " << service();
      break;
    case Kind::kKill:
      out << "kill " << service();
      break;
    case Kind::kRefuse:
      out << "refuse " << event.b << " binds of " << service();
      break;
    case Kind::kHold:
      out << "hold binds of " << service();
      break;
    case Kind::kComplete:
      out << "complete binds of " << service();
      break;
    case Kind::kTakeName:
      out << "another process takes " << event.text;
      break;
    case Kind::kBreakRuntime:
      out << "break the runtime once";
      break;
    case Kind::kSend:
      out << "send to " << (event.a < 0 ? event.text : "endpoint " + std::to_string(event.a)) << " code " << event.b
          << (event.two_way ? " two-way, " : ", ") << event.bytes;
      break;
    case Kind::kCall:
      out << "call " << describe(trace.calls.at(static_cast<std::size_t>(event.a)));
      break;
    case Kind::kStop:
      out << "another thread calls shutdown()";
      break;
    case Kind::kStopped:
      out << "the other thread's shutdown() returned";
      break;
    case Kind::kDrain:
      out << "drain";
      break;
    case Kind::kDrained:
      out << "drained";
      break;
    case Kind::kReply:
      out << "reply " << event.a << ", " << event.bytes;
      break;
    case Kind::kAwake:
      out << "awake";
      break;
    case Kind::kCallbackEnd:
      out << "end of callback" << (event.a != 0 ? ", throws" : "");
      break;
    case Kind::kSleep:
      out << "SLEEP " << event.a << " s";
      break;
    case Kind::kError:
      out << "ERROR " << event.text;
      break;
    case Kind::kLine:
      out << "LINE " << event.text;
      break;
    case Kind::kRequest:
      out << "REQUEST " << service() << " code " << event.b << " endpoint " << event.transfer << ", " << event.bytes;
      break;
    case Kind::kCallback:
      out << "CALLBACK " << event.a << " (" << event.text << ")";
      break;
    case Kind::kReturn:
      out << "RETURN " << event.text;
      break;
    case Kind::kAnswer:
      out << "ANSWER " << event.a;
      break;
  }
  return out.str();
}

}  // namespace orvel::fuzz
