/// @file
/// Messages that say what a receiver is to do or what has happened.
#pragma once

#include <string>
#include <vector>

#include "orvel/Bundle.h"
#include "orvel/ComponentName.h"
#include "orvel/Export.h"

struct vesk_buffer;
struct vesk_payload;

namespace orvel::service_apis {

/// An intent: sent to start a component or to be broadcast to all receivers, received with a broadcast. A plain value;
/// the members stand in wire order. Text ends at its first NUL on the wire. Threads: any, one at a time.
struct ORVEL_API OrvelIntent {
  std::string action;                   ///< what to do, or what has happened: "android.intent.action.SCREEN_ON"
  std::string data;                     ///< what it is about, a URI as a rule: "package:com.example.app"
  std::string text3;                    ///< passed through; only the receiving service gives it a meaning
  std::string package;                  ///< the package that it is limited to; empty for none
  ComponentName component;              ///< the component that it is for; sent only when good()
  Bundle extras;                        ///< sent only when its size() is at least 1
  std::vector<std::string> categories;  ///< what kind of component may take it
  int flags = 0;                        ///< the platform's, passed on as they are

  /// The wire format, for the library's own use. read() returns what came before the end of the buffer; intents arrive
  /// without categories and flags, which are empty and 0.
  static OrvelIntent read(vesk_buffer* buffer);
  /// True when everything was written.
  bool write(vesk_payload* payload) const;

  /// True when all members are equal.
  friend bool operator==(const OrvelIntent& a, const OrvelIntent& b) {
    return a.action == b.action && a.data == b.data && a.text3 == b.text3 && a.package == b.package &&
           a.component == b.component && a.extras == b.extras && a.categories == b.categories && a.flags == b.flags;
  }
  /// The opposite.
  friend bool operator!=(const OrvelIntent& a, const OrvelIntent& b) { return !(a == b); }
};

}  // namespace orvel::service_apis
