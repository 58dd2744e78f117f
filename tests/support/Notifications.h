// What services send to the endpoints of subscriptions.
#pragma once

#include "support/Vesk.h"

namespace orvel::test {

// Actions of broadcasts.
inline constexpr char kScreenOnAction[] = "android.intent.action.SCREEN_ON";
inline constexpr char kTimeSyncAction[] = "com.quarlo.velmos.service.timeservice.clock.TIME_SYNC";

// What every message to an endpoint begins with; the values mean nothing to the library.
inline Bytes notification(const Bytes& contents) {
  return Bytes().i32(7).i32(8).i32(9).utf16("any.IReceiver").append(contents);
}

inline Bytes setting(const char* key, const char* value) {
  return notification(Bytes().utf16(key).utf16(value));
}

// `extras` are `count` entries, each a key, a type and a value.
inline Bytes broadcast(const char* action, const char* data, int count = 0, const Bytes& extras = {}) {
  Bytes intent = Bytes().i32(1).i32(4).utf16(action).utf16(data).null().null().i32(0);
  if (count > 0) intent.i32(1).i32(count).append(extras);
  return notification(count > 0 ? intent : intent.i32(0));
}

}  // namespace orvel::test
