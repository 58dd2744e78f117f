/// @file
/// Events for the device's metrics.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "orvel/Export.h"

struct vesk_buffer;
struct vesk_payload;

namespace orvel::service_apis {

/// Facts about the device that a metric event may name. The metrics service looks the fact up; the event carries its
/// number alone.
struct ORVEL_API TarselPredefined {
  /// The numbers are the metrics service's.
  enum Type : std::int32_t {
    kSoftwareVersion = 0,             ///< "_SoftwareVersion"
    kSoftwareVersionFingerprint = 1,  ///< "_SoftwareVersionFingerprint"
    kOsFileTag = 2,                   ///< "_OsFileTag"
    kBuildType = 3,                   ///< "_BuildType"
    kPlatform = 4,                    ///< "_Platform"
    kModel = 5,                       ///< "_Model"
    kHardware = 6,                    ///< "_Hardware"
    kDeviceType = 7,                  ///< "_DeviceType"
    kDeviceId = 8,                    ///< "_DeviceId"
    kCustomerId = 9,                  ///< "_CustomerId"
    kMarketplaceId = 10,              ///< "_MarketplaceId"
    kCountryOfResidence = 11,         ///< "_CountryOfResidence"
    kDeviceLanguage = 12,             ///< "_DeviceLanguage"
    kOtaGroupName = 13,               ///< "_OtaGroupName"
    kTimeZone = 14,                   ///< "_TimeZone"
  };

  /// The key under which an event holds the fact, "_SoftwareVersion" for the first; empty for an unknown number.
  static std::string fromInteger(Type type);
};

/// One value of a metric event. A plain value.
struct ORVEL_API TarselMetricEventFieldValue {
  /// The numbers are the metrics service's.
  enum Kind : std::uint8_t {
    kString = 0,      ///< a text
    kLong = 1,        ///< an integer of 64 bits
    kDouble = 2,      ///< a floating-point number
    kTimestamp = 3,   ///< a time, as an integer of 64 bits
    kBoolean = 4,     ///< true or false
    kPredefined = 5,  ///< a fact about the device
    kUnset = 255,     ///< no value; an event with one cannot be sent
  };

  std::uint8_t kind = kString;  ///< a Kind, which says which of the other members counts
  std::string stringValue;      ///< of kString
  long long longValue = 0;      ///< of kLong, and of kTimestamp
  double doubleValue = 0;       ///< of kDouble
  int intValue = 0;             ///< of kBoolean, 0 or 1, and of kPredefined, a TarselPredefined::Type

  /// The wire format, for the library's own use. Values are only ever sent: read() returns false and leaves its target.
  static bool read(vesk_buffer* buffer, TarselMetricEventFieldValue& value);
  /// True when the value was written; false on failure, for an unset value and for an undefined kind.
  bool write(vesk_payload* payload) const;
};

/// An event for the device's metrics: two texts that say what it is about, and named values. Adding a value under a key
/// that is there already replaces the old one, even one of another kind. Text ends at its first NUL on the wire.
/// Threads: any, one at a time.
struct ORVEL_API TarselMetricEvent {
  std::string header1;  ///< caller and metrics service agree on its meaning
  std::string header2;  ///< likewise
  std::map<std::string, std::unique_ptr<TarselMetricEventFieldValue>> fields;  ///< sent in the order of the keys' bytes

  /// Always true. The text is moved out of `value`, which is empty afterwards.
  bool addStringEvent(const std::string& key, std::string& value);

  /// Always true.
  bool addLongEvent(const std::string& key, long long value);

  /// Always true.
  bool addDoubleEvent(const std::string& key, double value);

  /// Always true. Caller and metrics service agree on the unit; milliseconds since 1970 as a rule.
  bool addTimestampEvent(const std::string& key, long long value);

  /// Always true.
  bool addBooleanEvent(const std::string& key, bool value);

  /// True when the event names the fact about the device, under the fact's own key; false, and nothing changed, for an
  /// unknown number.
  bool addPredefinedEvent(TarselPredefined::Type type);

  /// The wire format, for the library's own use. Events are only ever sent: read() returns false and leaves its target.
  static bool read(vesk_buffer* buffer, TarselMetricEvent& event);
  /// True when everything was written; otherwise the payload holds a part of the event.
  bool write(vesk_payload* payload) const;
};

}  // namespace orvel::service_apis
