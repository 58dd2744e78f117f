// Follows the library's log, which alone tells a failed call from an empty result and a dead service from a slow one.
#pragma once

#include <string>

namespace orvelctl {

// Takes the log over: lines of at least `level` (an Android log priority) go to standard error.
void watchLog(int level);

// Whether the library has said that there is no device. Its IPC library names the directory in a line of its own.
bool saidNoDevice();

// Whether the service was given up or has died, and was not bound again since.
bool isUnbound(const std::string& service);

// How often the service was given up or has died; losses() is readable after each time, of any service.
unsigned lossesOf(const std::string& service);
int losses();

// What the library logged on this thread from the construction on. One at a time on a thread.
class CallLog {
 public:
  CallLog();
  bool hasError() const;
  bool hasTimedOut() const;  // a service did not answer within the call limit
  bool hasMetDeath() const;  // a service died before it answered; the notice of that may come later, on another thread
};

}  // namespace orvelctl
