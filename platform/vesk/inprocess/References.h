// Calls out of the runtime inside a process, and the references that it takes and drops that way.
#pragma once

#include <atomic>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "vesk/message/Message.h"
#include "vesk/vesk.h"

namespace vesk::inprocess {

// The void* that vesk_get_runtime gives.
void* runtime_address();

// What of the process is alive, or how it wants things done; they outlive every static object.
struct Counts {
  std::atomic<int> payloads{0};
  std::atomic<int> buffers{0};
  std::atomic<int> endpoint_references{0};
  std::atomic<int> death_references{0};
};
extern Counts g_counts;
extern std::atomic<bool> g_quiet;   // what callbacks throw is not printed
extern std::atomic<bool> g_strict;  // abort where require() is not kept

// How deep this thread is in the runtime; 0 in what the runtime calls.
extern thread_local int t_depth;

class Inside {
 public:
  Inside() { ++t_depth; }
  ~Inside() { --t_depth; }
  Inside(const Inside&) = delete;
  Inside& operator=(const Inside&) = delete;
};

class Outside {
 public:
  Outside() { t_depth = 0; }
  ~Outside() { t_depth = m_before; }
  Outside(const Outside&) = delete;
  Outside& operator=(const Outside&) = delete;

 private:
  const int m_before = t_depth;
};

// A rule that a strict runtime insists on.
void require(bool kept, const char* operation, const char* rule);

void report_throw(const char* what, const std::string& text);

// Runs a callback. What it throws ends here and is an error, as with the host runtime; `thrown` gets its text.
template <typename Callback>
int call_out(const char* what, Callback callback, std::optional<std::string>* thrown = nullptr) {
  const Outside outside;
  std::string text;
  try {
    return callback();
  } catch (const std::exception& exception) {
    text = exception.what();
  } catch (...) {
    text = "not a std::exception";
  }
  report_throw(what, text);
  if (thrown != nullptr) *thrown = text;
  return -EIO;
}

using EndpointRefs = std::vector<EndpointRef>;

// A new reference to `endpoint`.
EndpointRef hold(vesk_endpoint* endpoint);

// Whether both stand for the same reference, and not only for the same endpoint.
bool is_same(const std::weak_ptr<const void>& a, const std::weak_ptr<const void>& b);

// One link to a death, from death_acquire to death_release. Never destroyed under the lock.
struct DeathLink {
  explicit DeathLink(vesk_death_callback* linked);
  ~DeathLink();
  DeathLink(const DeathLink&) = delete;
  DeathLink& operator=(const DeathLink&) = delete;

  vesk_death_callback* const callback;
};
using DeathLinks = std::vector<std::shared_ptr<DeathLink>>;

}  // namespace vesk::inprocess
