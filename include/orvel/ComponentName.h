/// @file
/// The name of one component of an application.
#pragma once

#include <string>

#include "orvel/Export.h"

struct vesk_buffer;
struct vesk_payload;

namespace orvel::service_apis {

/// A package and one of its classes, such as an activity or a service. A plain value. Threads: any, one at a time.
struct ORVEL_API ComponentName {
  std::string package_name;  ///< the application's package
  std::string class_name;    ///< the class, with its own package

  /// True when it names a component: both parts are there.
  bool good() const;

  /// The wire format, for the library's own use. read() stops at an empty package, which no class follows on the wire.
  static ComponentName read(vesk_buffer* buffer);
  /// True when everything was written.
  bool write(vesk_payload* payload) const;

  /// True when both parts are equal.
  friend bool operator==(const ComponentName& a, const ComponentName& b) {
    return a.package_name == b.package_name && a.class_name == b.class_name;
  }
  /// The opposite.
  friend bool operator!=(const ComponentName& a, const ComponentName& b) { return !(a == b); }
};

}  // namespace orvel::service_apis
