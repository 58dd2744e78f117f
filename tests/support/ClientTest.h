// What every test of the client library stands on: a fake libvesk, a virtual clock, and the lines that the library
// logs.
#pragma once

#include <gmock/gmock.h>

#include <string>
#include <utility>
#include <vector>

#include "support/LogRecorder.h"
#include "support/Services.h"
#include "support/Vesk.h"
#include "support/VirtualClock.h"

namespace orvel::test {

using Lines = std::vector<std::string>;

class ClientTest : public ::testing::Test {
 protected:
  // `module` as for LogRecorder.
  explicit ClientTest(std::string module) : m_log(std::move(module)) {
    vesk_get_runtime(&m_runtime);
    m_vesk.be_strict();
  }

  // Makes them run.
  void start_services() {
    for (const char* name : kServices) m_vesk.add_service(name);
  }
  // Makes `service` answer every call with `bytes`.
  void answer(const std::string& service, const Bytes& bytes) {
    m_vesk.add_service(service, [bytes](const Transaction&) { return Reply{bytes, 0}; });
  }
  int messages() const { return m_vesk.live().payloads + m_vesk.live().buffers; }

  InprocessVesk m_vesk;
  VirtualClock m_clock;
  LogRecorder m_log;
  void* m_runtime = nullptr;
};

// A request as the services expect it.
inline Bytes request(const char* descriptor, const Bytes& arguments = {}) {
  Bytes bytes = Bytes().raw({0, 0, 0, 0, 0xff, 0xff, 0xff, 0xff, 0x54, 0x53, 0x59, 0x53});
  return bytes.utf16(descriptor).append(arguments);
}

}  // namespace orvel::test
