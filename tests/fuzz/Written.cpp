// The records that the library sends, filled from the input: what is written has its length in front and reads back.
#include <iterator>
#include <map>
#include <string>
#include <variant>

#include "Match.h"
#include "orvel/TarselMetricEvent.h"
#include "parcel/OrvelSimEventMetadata.h"

namespace {

using namespace orvel::fuzz;          // NOLINT(google-build-using-namespace)
using namespace orvel::service_apis;  // NOLINT(google-build-using-namespace)
using orvel::test::Bytes;

// What a function that takes a C string sees of a text.
std::string asC(const std::string& text) {
  return text.substr(0, text.find('\0'));
}

// Writes a record behind another value and goes over it. Optional texts are null when they are empty.
class Written : public Match {
 public:
  template <typename Record>
  static Bytes bytesOf(const Record& record) {
    const orvel::test::PayloadPtr payload(vesk_payload_alloc());
    vesk_write_i32(payload.get(), kBefore);
    require(record.write(payload.get()) && vesk_payload_last_error(payload.get()) == 0, "every record can be written");
    return orvel::test::bytes_of(payload.get());
  }

  explicit Written(const Bytes& message) : Match({message.data(), message.size()}) { expect(kBefore); }
  ~Written() { require(!failed() && left() == 0, "a written record is whole and ends with its last value"); }
  Written(const Written&) = delete;
  Written& operator=(const Written&) = delete;

  void expectMarkAndLength() {
    expect(1);
    expect(static_cast<int>(left()));
  }
  void expectOptional(const std::string& text) {
    if (text.empty()) return expect(-1);
    expect(asC(text));
  }

 private:
  static constexpr int kBefore = 9;
};

void checkMetadata(Choices& choices) {
  OrvelSimEventMetadata metadata;
  std::string* const texts[] = {&metadata.namespaceName, &metadata.name,   &metadata.event3, &metadata.event4,
                                &metadata.event5,        &metadata.event6, &metadata.event7};
  for (std::string* text : texts) *text = choices.text();
  metadata.eventFlag = choices.byte() % 2 == 1;
  Written wire(Written::bytesOf(metadata));
  wire.expectMarkAndLength();
  for (const std::string* text : texts) wire.expectOptional(*text);
  wire.expect(metadata.eventFlag ? 1 : 0);
}

// A value of a metric event as it has to cross.
struct Metric {
  int kind = 0;
  std::variant<int, long long, double, std::string> value;
};

Metric addValue(TarselMetricEvent& event, int kind, const std::string& key, Choices& choices) {
  if (kind == 0) {
    std::string text = choices.text();
    const Metric metric{kind, asC(text)};
    require(event.addStringEvent(key, text) && text.empty(), "a text is moved in");
    return metric;
  }
  if (kind == 2) {
    const auto value = choices.number<double>();
    require(event.addDoubleEvent(key, value), "a number is taken");
    return {kind, value};
  }
  if (kind == 4) {
    const bool value = choices.byte() % 2 == 1;
    require(event.addBooleanEvent(key, value), "a flag is taken");
    return {kind, value ? 1 : 0};
  }
  const auto value = choices.number<long long>();
  require(kind == 1 ? event.addLongEvent(key, value) : event.addTimestampEvent(key, value), "a number is taken");
  return {kind, value};
}

void checkMetricEvent(Choices& choices) {
  constexpr int kPredefined = 5;
  TarselMetricEvent event;
  std::map<std::string, Metric> wanted;  // by the bytes of the keys, as they are sent
  event.header1 = choices.text();
  event.header2 = choices.text();
  while (!choices.ended()) {
    const int kind = choices.byte() % 6;
    const std::string key = choices.text();
    if (kind != kPredefined) {
      wanted[key] = addValue(event, kind, key, choices);
      continue;
    }
    const auto fact = choices.number<std::int32_t>();
    const auto type = static_cast<TarselPredefined::Type>(fact);
    const bool known = fact >= 0 && fact < 15;
    if (known) wanted[TarselPredefined::fromInteger(type)] = {kind, fact};
    require(event.addPredefinedEvent(type) == known, "there are fifteen facts");
  }
  Written wire(Written::bytesOf(event));
  wire.expectMarkAndLength();
  wire.expectAll(asC(event.header1), asC(event.header2));
  wire.expect(wanted.empty() ? -1 : static_cast<int>(wanted.size()));
  for (const auto& [key, metric] : wanted) {
    wire.expectAll(asC(key), metric.kind);
    std::visit([&wire](const auto& value) { wire.expect(value); }, metric.value);
  }
}

// Fills a bundle. Keys are without NUL: two that are cut to the same would be one for the reader.
template <typename AnyBundle>
void fill(Choices& choices, AnyBundle& bundle, int entries) {
  for (; entries > 0 && !choices.ended(); --entries) {
    const int kind = choices.byte() % 3;
    const std::string key = asC(choices.text());
    if (kind == 0) {
      bundle.put(key, choices.number<std::int32_t>());
    } else if (kind == 1) {
      bundle.put(key, asC(choices.text()));
    } else if constexpr (std::is_same_v<AnyBundle, Bundle>) {
      bundle.put(key, choices.number<long long>());
    }
  }
}

// The length in front of a bundle does not count itself.
void checkBundles(Choices& choices) {
  OrvelBundle metadata;
  fill(choices, metadata, 30);  // no more are read
  Written wire(Written::bytesOf(metadata));
  Match(wire).expect(static_cast<int>(wire.left()) - 4);  // which is part of what is read
  wire.expect(metadata);

  Bundle bundle;
  fill(choices, bundle, 200);
  Written extras(Written::bytesOf(bundle));
  extras.expect(static_cast<int>(extras.left()) - 4);
  extras.expect(bundle);
}

void checkIntent(Choices& choices) {
  OrvelIntent intent;
  for (std::string* text : {&intent.action, &intent.data, &intent.text3, &intent.package}) *text = choices.text();
  intent.component = {choices.text(), choices.text()};
  intent.flags = choices.number<std::int32_t>();
  for (int count = choices.byte() % 8; count > 0; --count) intent.categories.push_back(choices.text());
  fill(choices, intent.extras, 200);

  Written wire(Written::bytesOf(intent));
  wire.expectMarkAndLength();
  wire.expect(asC(intent.action));
  for (const std::string* text : {&intent.data, &intent.text3, &intent.package}) wire.expectOptional(*text);
  wire.expect(intent.component.good() ? 1 : 0);
  if (intent.component.good()) wire.expectAll(asC(intent.component.package_name), asC(intent.component.class_name));
  wire.expect(intent.extras.size() > 0 ? 1 : 0);
  if (intent.extras.size() > 0) {
    require(wire.i32() > 0, "extras have a length");
    wire.expect(intent.extras);
  }
  wire.expect(static_cast<int>(intent.categories.size()));
  for (const std::string& category : intent.categories) wire.expect(asC(category));
  wire.expect(intent.flags);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr void (*kChecks[])(Choices&) = {checkMetadata, checkMetricEvent, checkBundles, checkIntent};
  Choices choices({data, size});
  kChecks[choices.byte() % std::size(kChecks)](choices);
  return 0;
}
