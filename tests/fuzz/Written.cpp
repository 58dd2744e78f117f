// The records that the library sends, filled from the input: what is written has its length in front and reads back.
#include <algorithm>
#include <map>
#include <string>
#include <variant>

#include "Walk.h"
#include "orvel/OrvelIntent.h"
#include "orvel/TarselMetricEvent.h"
#include "parcel/OrvelBundle.h"
#include "parcel/OrvelSimEventMetadata.h"

namespace {

using namespace orvel::fuzz;          // NOLINT(google-build-using-namespace)
using namespace orvel::service_apis;  // NOLINT(google-build-using-namespace)
using orvel::test::Bytes;
using orvel::test::PayloadPtr;

constexpr int kBefore = 9;  // what stands in front of each record

template <typename Record>
Bytes written(const Record& record) {
  const PayloadPtr payload(vesk_payload_alloc());
  vesk_write_i32(payload.get(), kBefore);
  require(record.write(payload.get()) && vesk_payload_last_error(payload.get()) == 0, "every record can be written");
  return orvel::test::bytes_of(payload.get());
}

// A Walk that goes over a record from its length word on.
struct Reading {
  explicit Reading(const Bytes& message) : size(message.size()), wire(inputOf(message)) { wire.expect(kBefore); }

  void expectMarkAndLength() { wire.expectAll(1, static_cast<int>(size - 8)); }  // the length counts itself
  void expectEnd() {
    require(!wire.failed(), "a written record is whole");
    wire.i32();
    require(wire.failed(), "a written record ends with its last value");
  }
  void expectOptional(const std::string& text) {
    if (asC(text).empty() && !text.empty()) return wire.expect(std::string());  // its NUL makes it empty, not null
    text.empty() ? wire.expect(-1) : wire.expect(asC(text));
  }

  std::size_t size;
  Walk wire;
};

OrvelSimEventMetadata drawMetadata(Choices& choices) {
  OrvelSimEventMetadata metadata;
  for (std::string* text : {&metadata.namespaceName, &metadata.name, &metadata.event3, &metadata.event4,
                            &metadata.event5, &metadata.event6, &metadata.event7}) {
    *text = choices.text();
  }
  metadata.eventFlag = choices.byte() % 2 == 1;
  return metadata;
}

void checkMetadata(Choices& choices) {
  const OrvelSimEventMetadata metadata = drawMetadata(choices);
  const Bytes message = written(metadata);
  Reading reading(message);
  reading.expectMarkAndLength();
  for (const std::string* text : {&metadata.namespaceName, &metadata.name, &metadata.event3, &metadata.event4,
                                  &metadata.event5, &metadata.event6, &metadata.event7}) {
    reading.expectOptional(*text);
  }
  reading.wire.expect(metadata.eventFlag ? 1 : 0);
  reading.expectEnd();
  require(OrvelSimEventMetadata::read(bufferOf(inputOf(message)).get()).name.empty(), "metadata are only sent");
}

// A value of a metric event as it has to cross.
struct Metric {
  int kind = 0;
  std::variant<int, long long, double, std::string> value;
};

void checkMetricEvent(Choices& choices) {
  TarselMetricEvent event;
  std::map<std::string, Metric> wanted;  // by the bytes of the keys, as they are sent
  event.header1 = choices.text();
  event.header2 = choices.text();
  while (!choices.ended()) {
    const int kind = choices.byte() % 6;
    const std::string key = choices.text();
    if (kind == 0) {
      std::string text = choices.text();
      wanted[key] = {kind, asC(text)};
      require(event.addStringEvent(key, text) && text.empty(), "a text is moved in");
    } else if (kind == 1 || kind == 3) {
      const auto value = choices.number<long long>();
      wanted[key] = {kind, value};
      require(kind == 1 ? event.addLongEvent(key, value) : event.addTimestampEvent(key, value), "a number is taken");
    } else if (kind == 2) {
      const auto value = choices.number<double>();
      wanted[key] = {kind, value};
      require(event.addDoubleEvent(key, value), "a number is taken");
    } else if (kind == 4) {
      const bool value = choices.byte() % 2 == 1;
      wanted[key] = {kind, value ? 1 : 0};
      require(event.addBooleanEvent(key, value), "a flag is taken");
    } else {
      const auto fact = choices.number<std::int32_t>();
      const auto type = static_cast<TarselPredefined::Type>(fact);
      const bool known = fact >= 0 && fact < 15;
      if (known) wanted[TarselPredefined::fromInteger(type)] = {kind, fact};
      require(event.addPredefinedEvent(type) == known, "there are fifteen facts");
    }
  }
  const Bytes message = written(event);
  Reading reading(message);
  reading.expectMarkAndLength();
  reading.wire.expectAll(asC(event.header1), asC(event.header2));
  reading.wire.expect(wanted.empty() ? -1 : static_cast<int>(wanted.size()));
  for (const auto& [key, metric] : wanted) {
    reading.wire.expectAll(asC(key), metric.kind);
    std::visit([&reading](const auto& value) { reading.wire.expect(value); }, metric.value);
  }
  reading.expectEnd();
  TarselMetricEvent untouched;
  TarselMetricEventFieldValue untouchedValue;
  const orvel::test::BufferPtr buffer = bufferOf(inputOf(message));
  require(!TarselMetricEvent::read(buffer.get(), untouched) &&
              !TarselMetricEventFieldValue::read(buffer.get(), untouchedValue) &&
              vesk_buffer_remaining(buffer.get()) == message.size() && untouched.fields.empty(),
          "metric events are only sent");
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

void checkBundles(Choices& choices) {
  OrvelBundle metadata;
  fill(choices, metadata, 30);  // no more are read
  const Bytes message = written(metadata);
  Reading reading(message);
  require(Walk(reading.wire).i32() == static_cast<int>(message.size() - 8), "the length does not count itself");
  reading.wire.expect(metadata);
  reading.expectEnd();

  Bundle bundle;
  fill(choices, bundle, 200);
  const Bytes another = written(bundle);
  Reading extras(another);
  extras.wire.expect(static_cast<int>(another.size() - 8));
  extras.wire.expect(bundle);
  extras.expectEnd();
}

void checkIntent(Choices& choices) {
  OrvelIntent intent;
  intent.action = choices.text();
  intent.data = choices.text();
  intent.text3 = choices.text();
  intent.package = choices.text();
  intent.component = {choices.text(), choices.text()};
  intent.flags = choices.number<std::int32_t>();
  for (int count = choices.byte() % 8; count > 0; --count) intent.categories.push_back(choices.text());
  fill(choices, intent.extras, 200);

  const Bytes message = written(intent);
  Reading reading(message);
  reading.expectMarkAndLength();
  reading.wire.expect(asC(intent.action));
  for (const std::string* text : {&intent.data, &intent.text3, &intent.package}) reading.expectOptional(*text);
  reading.wire.expect(intent.component.good() ? 1 : 0);
  if (intent.component.good()) {
    reading.wire.expectAll(asC(intent.component.package_name), asC(intent.component.class_name));
  }
  reading.wire.expect(intent.extras.size() > 0 ? 1 : 0);
  if (intent.extras.size() > 0) {
    require(reading.wire.i32() > 0, "extras have a length");
    reading.wire.expect(intent.extras);
  }
  reading.wire.expect(static_cast<int>(intent.categories.size()));
  for (const std::string& category : intent.categories) reading.wire.expect(asC(category));
  reading.wire.expect(intent.flags);
  reading.expectEnd();
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Choices choices({data, size});
  constexpr void (*kChecks[])(Choices&) = {checkMetadata, checkMetricEvent, checkBundles, checkIntent};
  kChecks[choices.byte() % std::size(kChecks)](choices);
  return 0;
}
