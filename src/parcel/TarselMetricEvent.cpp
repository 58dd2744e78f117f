#include "orvel/TarselMetricEvent.h"

#include <array>
#include <cstddef>
#include <utility>

#include "binder/OrvelLogger.h"
#include "parcel/Double.h"
#include "parcel/Int32.h"
#include "parcel/Int64.h"
#include "parcel/Measured.h"
#include "parcel/String.h"

namespace orvel::service_apis {
namespace {

// Unused so far: every failure shows in a result.
[[maybe_unused]] const OrvelLogger s_logger("TarselMetricEvent");

using Value = TarselMetricEventFieldValue;

constexpr std::array<const char*, 15> kPredefinedKeys = {
    "_SoftwareVersion", "_SoftwareVersionFingerprint",
    "_OsFileTag",       "_BuildType",
    "_Platform",        "_Model",
    "_Hardware",        "_DeviceType",
    "_DeviceId",        "_CustomerId",
    "_MarketplaceId",   "_CountryOfResidence",
    "_DeviceLanguage",  "_OtaGroupName",
    "_TimeZone",
};

constexpr int kNullMap = -1;

// Puts a value of the kind under the key, in place of another one. Always true.
template <typename Member>
bool add(TarselMetricEvent& event, const std::string& key, Value::Kind kind, Member Value::*member, Member content) {
  auto value = std::make_unique<Value>();
  value->kind = kind;
  (*value).*member = std::move(content);
  event.fields[key] = std::move(value);
  return true;
}

}  // namespace

std::string TarselPredefined::fromInteger(Type type) {
  const auto number = static_cast<std::size_t>(type);  // a negative one becomes a large one
  return number < kPredefinedKeys.size() ? kPredefinedKeys.at(number) : "";
}

bool TarselMetricEventFieldValue::read(vesk_buffer* /*buffer*/, TarselMetricEventFieldValue& /*value*/) {
  return false;
}

bool TarselMetricEventFieldValue::write(vesk_payload* payload) const {
  if (!payload || kind == kUnset || !Int32::write(payload, kind)) return false;
  switch (kind) {
    case kString:
      return String::write(payload, stringValue);
    case kLong:
    case kTimestamp:
      return Int64::write(payload, longValue);
    case kDouble:
      return Double::write(payload, doubleValue);
    case kBoolean:
    case kPredefined:
      return Int32::write(payload, intValue);
    default:
      return false;
  }
}

bool TarselMetricEvent::addStringEvent(const std::string& key, std::string& value) {
  return add(*this, key, Value::kString, &Value::stringValue, std::exchange(value, {}));
}

bool TarselMetricEvent::addLongEvent(const std::string& key, long long value) {
  return add(*this, key, Value::kLong, &Value::longValue, value);
}

bool TarselMetricEvent::addDoubleEvent(const std::string& key, double value) {
  return add(*this, key, Value::kDouble, &Value::doubleValue, value);
}

bool TarselMetricEvent::addTimestampEvent(const std::string& key, long long value) {
  return add(*this, key, Value::kTimestamp, &Value::longValue, value);
}

bool TarselMetricEvent::addBooleanEvent(const std::string& key, bool value) {
  return add(*this, key, Value::kBoolean, &Value::intValue, value ? 1 : 0);
}

bool TarselMetricEvent::addPredefinedEvent(TarselPredefined::Type type) {
  const std::string key = TarselPredefined::fromInteger(type);
  return !key.empty() && add(*this, key, Value::kPredefined, &Value::intValue, static_cast<int>(type));
}

bool TarselMetricEvent::read(vesk_buffer* /*buffer*/, TarselMetricEvent& /*event*/) {
  return false;
}

bool TarselMetricEvent::write(vesk_payload* payload) const {
  return write_patched(payload, [this, payload] {
    if (!String::write(payload, header1) || !String::write(payload, header2)) return false;
    Int32::write(payload, fields.empty() ? kNullMap : static_cast<int>(fields.size()));
    for (const auto& [key, value] : fields) {
      String::write(payload, key);
      if (!value || !value->write(payload)) return false;
    }
    return true;
  });
}

}  // namespace orvel::service_apis
