// Keeps the library from asking libvesk for what a shutdown has just ended: binds, and published names.
#pragma once

#include <optional>

#include "binder/Disposal.h"

namespace orvel::service_apis {

// The right to one such operation of libvesk, for as long as it takes. The state is the process's and lives as long as it
// does. Threads: any.
class Admission {
 public:
  Admission();
  ~Admission();
  Admission(const Admission&) = delete;
  Admission& operator=(const Admission&) = delete;

  // False once a shutdown has begun: the operation must not.
  explicit operator bool() const { return m_granted; }

  // From its construction on, which waits for the operations in progress, none is admitted as long as it exists.
  class Closed {
   public:
    Closed();
    ~Closed();
    Closed(const Closed&) = delete;
    Closed& operator=(const Closed&) = delete;
  };

 private:
  const Disposal m_disposal;  // of the endpoint that libvesk drops for one published in its place
  const bool m_granted;
};

// What such an operation gives; empty, and not run, once a shutdown has begun.
template <typename Operation>
std::optional<int> run_unless_shut_down(const Operation& operation) {
  const Admission admission;
  if (!admission) return std::nullopt;
  return operation();
}

}  // namespace orvel::service_apis
