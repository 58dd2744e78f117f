// The assistant's event service: takes events, and tells how each came out.
#include "device/Intent.h"
#include "device/ServiceNames.h"
#include "device/services/Services.h"

namespace orvel::sim {
namespace {

// The metadata's length includes the four bytes that say it.
constexpr unsigned kMetadataLengthCounted = 4;

constexpr int kAccepted = 1;

constexpr const char* kMetadataTexts[] = {"namespace", "name", "event3", "event4", "event5", "event6", "event7"};

Json readMetadata(RequestReader& reader) {
  if (!reader.present()) return {};
  Json metadata;
  reader.measured("the metadata", kMetadataLengthCounted, [&] {
    for (const char* key : kMetadataTexts) metadata[key] = reader.text();
    metadata["flag"] = readFlag(reader);
  });
  return metadata;
}

void writeResult(vesk_payload* payload, const Json& result) {
  vesk_write_i32(payload, 1);
  // A malformed one ends where the code belongs.
  if (const auto code = result.find("code"); code != result.end()) writeInt32(payload, *code);
}

constexpr char kStatusCallback[] = "com.quarlo.orveldelegate.orvelsim.IOrvelSimEventStatusCallback";
const CallbackMethod kResult = {1, "eventResult", kStatusCallback, /*answered=*/false, writeResult};

class EventService : public Service {
 public:
  using Service::Service;

  // How the result goes out is what the scenario says at this moment, not what it says when the result is due.
  Json sendEvent(const Call& call) {
    expectNamed(call);
    const bool accepted = section().at("reply") == kAccepted;
    const std::string mode = accepted ? section().at("resultMode") : "never";
    const bool cut = mode == "malformed";
    const Json result = cut ? Json::object() : Json{{"code", section().at("result")}};
    const auto told = std::make_shared<const Notification>(type().id, kResult, result);
    const std::vector<RemotePtr> receivers(mode == "twice" ? 2 : 1, call.endpoints.front());
    if (mode == "before") {
      host().deliveries().send(told, receivers);
    } else if (mode != "never") {
      // Even without a delay the reply goes first: it is sent before the run loop comes to its timers.
      const auto owed = m_owed.insert(m_owed.end(), nullptr);
      const std::chrono::milliseconds delay(section().at("resultDelayMs").get<std::int64_t>());
      *owed = std::make_unique<Timer>(host().runtime(), delay, [=] {
        host().deliveries().send(told, receivers);
        m_owed.erase(owed);
      });
    }
    return section().at("reply");
  }

 private:
  static void expectNamed(const Call& call) {
    const Json& metadata = call.arguments.at("metadata");
    for (const char* key : {"namespace", "name"}) {
      if (metadata.is_null() || textOf(metadata, key).empty()) {
        throw RemoteException(kIllegalArgumentException, call.method->name + ": the event has no " + key);
      }
    }
  }

  std::list<std::unique_ptr<Timer>> m_owed;  // for the results that are not due yet
};

}  // namespace

const ServiceType& eventService() {
  using Self = EventService;
  static const ServiceType type = {
      "events",
      kEventClientName,
      "com.quarlo.orveldelegate.orvelsim.IOrvelSimEventClient",
      "events for the assistant",
      {
          {"reply", Shape::number(), 1,
           "what sendEvent answers; 1 means that the event is accepted, and only then there is a result"},
          {"result", Shape::number(), 0, "the code that an event results in"},
          {"resultDelayMs", Shape::number(0), 0, "how long after the reply the result is sent"},
          {"resultMode", Shape::choice({"after", "before", "twice", "never", "malformed"}), "after",
           "when and how the result is sent; before and after the reply"},
      },
      {
          {2,
           "sendEvent",
           {{"metadata", readMetadata}, {"payload", readText}, {"callback", readEndpoint}},
           handledBy<&Self::sendEvent>,
           writeInt32},
      },
      makeService<Self>,
      {&kResult},
  };
  return type;
}

}  // namespace orvel::sim
