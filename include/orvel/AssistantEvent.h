/// @file
/// Events for the voice assistant.
#pragma once

#include <chrono>
#include <functional>
#include <string>

namespace orvel::service_apis {

/// An event, by name. Caller and assistant agree on the meaning of the numbered texts, the flag and the payload. A
/// plain value.
struct AssistantEvent {
  std::string nspace{};   ///< the namespace
  std::string name{};     ///< the name in it
  std::string event3{};   ///< the third text, and so on
  std::string event4{};   ///< the fourth
  std::string event5{};   ///< the fifth
  std::string event6{};   ///< the sixth
  std::string event7{};   ///< the seventh
  bool flag = false;      ///< the flag
  std::string payload{};  ///< the payload
  /// How long the outcome may take after the assistant has accepted the event; zero for as long as it likes.
  std::chrono::nanoseconds deadline{0};
};

/// What became of an event. A plain value.
struct EventOutcome {
  /// One of the names in OrvelDelegateClient::EventResultCallback, "TIMEOUT" also when the deadline has passed; or
  /// "LOST", when the event service died, let go of the event, or shutdown() came before it told.
  std::string result;
  bool retryable = false;  ///< whether the event may be sent again; a lost one may have been handled already
};

/// Gets the outcome of an event, once.
using EventOutcomeCallback = std::function<void(const EventOutcome&)>;

}  // namespace orvel::service_apis
