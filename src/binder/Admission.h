// Keeps the library from binding a service or publishing a name once a shutdown has begun.
#pragma once

#include <optional>

#include "binder/Disposal.h"

namespace orvel::service_apis {

// The right to one such operation of libvesk, for as long as it takes. The state belongs to the process and lives as
// long as it does. Threads: any.
class Admission {
 public:
  Admission();
  ~Admission();
  Admission(const Admission&) = delete;
  Admission& operator=(const Admission&) = delete;

  // True when the operation may run; false once a shutdown has begun.
  explicit operator bool() const { return m_granted; }

  // As long as one exists, no operation is admitted. Its construction waits for the operations in progress.
  class Closed {
   public:
    Closed();
    ~Closed();
    Closed(const Closed&) = delete;
    Closed& operator=(const Closed&) = delete;
  };

 private:
  const Disposal m_disposal;  // of the endpoint that libvesk drops when another one is published under its name
  const bool m_granted;
};

// Runs such an operation and returns its result; empty, without running it, once a shutdown has begun.
template <typename Operation>
std::optional<int> run_unless_shut_down(const Operation& operation) {
  const Admission admission;
  if (!admission) return std::nullopt;
  return operation();
}

}  // namespace orvel::service_apis
