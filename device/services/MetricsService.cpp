// The metrics service: keeps what was recorded, to be looked at.
#include <deque>

#include "device/ServiceNames.h"
#include "device/Traffic.h"
#include "device/services/Services.h"

namespace orvel::sim {
namespace {

constexpr std::size_t kEventsKept = 1000;
// How many go into one message; each has a hundred kilobytes at most.
constexpr std::size_t kEventsAtOnce = 25;
// The event's length includes the four bytes that say it.
constexpr unsigned kEventLengthCounted = 4;
constexpr std::int32_t kNoFields = -1;

// The attributes that the service finds itself: clients send their number, under the key that goes with it.
constexpr const char* kPredefined[] = {
    "_SoftwareVersion", "_SoftwareVersionFingerprint",
    "_OsFileTag",       "_BuildType",
    "_Platform",        "_Model",
    "_Hardware",        "_DeviceType",
    "_DeviceId",        "_CustomerId",
    "_MarketplaceId",   "_CountryOfResidence",
    "_DeviceLanguage",  "_OtaGroupName",
    "_TimeZone",
};

Json readPredefined(RequestReader& reader) {
  const std::int32_t number = reader.i32();
  if (number < 0 || static_cast<std::size_t>(number) >= std::size(kPredefined)) {
    throw RemoteException(kBadParcelableException, "there is no predefined field " + std::to_string(number));
  }
  return number;
}

// The kinds of values, by their numbers.
constexpr struct {
  const char* name;
  Json (*read)(RequestReader& reader);
} kKinds[] = {
    {"string", readPresentText}, {"long", readInt64},   {"double", readDouble},
    {"timestamp", readInt64},    {"boolean", readFlag}, {"predefined", readPredefined},
};

Json readField(RequestReader& reader) {
  Json key = readPresentText(reader);
  const std::int32_t number = reader.i32();
  if (number < 0 || static_cast<std::size_t>(number) >= std::size(kKinds)) {
    throw RemoteException(kBadParcelableException,
                          "the field " + key.dump() + " has the unknown kind " + std::to_string(number));
  }
  const auto& kind = kKinds[number];
  Json value = kind.read(reader);
  if (kind.read == readPredefined && key != kPredefined[value.get<std::size_t>()]) {
    throw RemoteException(kBadParcelableException, "the predefined field " + value.dump() + " stands under the key " +
                                                       key.dump() + ", which is not its own");
  }
  return {{"key", std::move(key)}, {"type", kind.name}, {"value", std::move(value)}};
}

Json readFields(RequestReader& reader) {
  Json fields = Json::array();
  const std::int32_t count = reader.i32();
  if (count < kNoFields) {
    throw RemoteException(kBadParcelableException, "the number of fields is " + std::to_string(count));
  }
  for (std::int32_t left = count; left > 0; --left) fields.push_back(readField(reader));
  return fields;
}

Json readEvent(RequestReader& reader) {
  if (!reader.present()) return {};
  Json event;
  reader.measured("the event", kEventLengthCounted, [&] {
    for (const char* header : {"header1", "header2"}) event[header] = readPresentText(reader);
    event["fields"] = readFields(reader);
  });
  return event;
}

class MetricsService : public Service {
 public:
  using Service::Service;

  Json recordEvent(const Call& call) {
    const Json& event = call.arguments.at("event");
    if (event.is_null()) throw RemoteException(kIllegalArgumentException, call.method->name + ": there is no event");
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    Json kept = {{"timeMs", std::chrono::duration_cast<std::chrono::milliseconds>(now).count()}};
    for (const auto& [key, value] : event.items()) kept[key] = shortened(value);
    kept["number"] = ++m_recorded;
    m_events.push_back(std::move(kept));
    if (m_events.size() > kEventsKept) m_events.pop_front();
    return {};
  }

 private:
  // A question for what was recorded: {"after": number}. The answer has as many of what follows that as fit into it.
  Json event(const Json& question) override {
    const auto after = question.at("after").get<std::uint64_t>();
    Json events = Json::array();
    for (const Json& event : m_events) {
      if (events.size() == kEventsAtOnce) break;
      if (event.at("number") > after) events.push_back(event);
    }
    return {{"events", events}, {"newest", m_recorded}};
  }

  std::deque<Json> m_events;  // the newest, numbered without gaps
  std::uint64_t m_recorded = 0;
};

}  // namespace

const ServiceType& metricsService() {
  using Self = MetricsService;
  static const ServiceType type = {
      "metrics",
      kMetricsName,
      "com.quarlo.orveldelegate.services.ITarselMetric",
      "metric events",
      {
          {"interfaceVersion", Shape::number(), 2, "the version of the interface"},
      },
      {
          {2, "recordTarselMetricEvent", {{"event", readEvent}}, handledBy<&Self::recordEvent>, writeNothing},
          getter(3, "getVersion", "interfaceVersion", writeInt32),
      },
      makeService<Self>,
  };
  return type;
}

}  // namespace orvel::sim
