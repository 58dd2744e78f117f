// The device's side of the wire: takes requests apart and puts replies together. Shares no codec with the client
// library, so that a mistake of the client's cannot hide behind the same mistake here.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "vesk/vesk.h"
#include "vesk/vesk_service.h"

namespace orvel::sim {

// Keeps the order in which a service declares its fields.
using Json = nlohmann::ordered_json;

// What an exception says, without the "[json.exception...] " that the JSON library begins with.
std::string plainText(const std::exception& error);

struct PayloadFree {
  void operator()(vesk_payload* payload) const { vesk_payload_free(payload); }
};
struct BufferFree {
  void operator()(vesk_buffer* buffer) const { vesk_buffer_free(buffer); }
};
using PayloadPtr = std::unique_ptr<vesk_payload, PayloadFree>;
using BufferPtr = std::unique_ptr<vesk_buffer, BufferFree>;
using RemotePtr = std::shared_ptr<vesk_remote>;  // drop the last one on the run-loop thread

// The number of an endpoint that a request brought; in this process no other one ever has it. Run-loop thread.
std::uint64_t endpointNumber(const RemotePtr& remote);

// Whether the endpoint with that number is still kept here.
bool isKept(std::uint64_t endpoint);

// The exception codes that the device's services use.
constexpr int kSecurityException = -1;
constexpr int kBadParcelableException = -2;
constexpr int kIllegalArgumentException = -3;
constexpr int kIllegalStateException = -5;
constexpr int kUnsupportedOperationException = -7;

// What a service answers in place of a result.
struct RemoteException : std::runtime_error {
  RemoteException(int exceptionCode, const std::string& message, std::string stackTrace = {})
      : std::runtime_error(message), code(exceptionCode), trace(std::move(stackTrace)) {}
  int code;
  std::string trace;  // empty: none is sent
};

// Unpaired surrogates become U+FFFD.
std::string toUtf8(const std::uint16_t* units, std::size_t count);

// Reads one request from its first byte on. Anything that does not fit throws a RemoteException that says what and
// where.
class RequestReader {
 public:
  explicit RequestReader(vesk_buffer* request) : m_buffer(request) {}  // borrowed for the reader's life

  // The three header words and the interface descriptor.
  void expectHeader(const std::string& descriptor);

  std::int32_t i32();
  std::int64_t i64();
  double f64();
  Json text();   // null for a null string
  Json texts();  // null for a null array
  RemotePtr endpoint();

  // Whether something is there, as its presence marker says.
  bool present();

  // Reads a length word and then, with `read`, what it is the length of; `counted` of its own four bytes belong to it.
  // `what` names it where they do not agree.
  void measured(const char* what, std::size_t counted, const std::function<void()>& read);

  // Nothing may follow the last argument.
  void expectEnd();

  // The endpoints read so far, in order.
  std::vector<RemotePtr> takeEndpoints() { return std::move(m_endpoints); }

 private:
  void check();

  vesk_buffer* m_buffer;
  std::vector<RemotePtr> m_endpoints;
};

// Argument readers of the method tables: the value as it is shown in the traffic and given to the handler.
Json readInt32(RequestReader& reader);
Json readInt64(RequestReader& reader);
Json readDouble(RequestReader& reader);  // a text for what no JSON number stands for
Json readFlag(RequestReader& reader);
Json readNothing(RequestReader& reader);
Json readText(RequestReader& reader);
Json readPresentText(RequestReader& reader);  // refuses a null string
Json readTexts(RequestReader& reader);
Json readEndpoint(RequestReader& reader);

// Writers of the method tables, for results and for what clients are told. They throw for a value of another kind,
// which only a file can hold.
void writeNothing(vesk_payload* payload, const Json& value);
void writeFlag(vesk_payload* payload, const Json& value);  // 1 or 0
void writeInt32(vesk_payload* payload, const Json& value);
void writeInt64(vesk_payload* payload, const Json& value);
void writeText(vesk_payload* payload, const Json& value);  // null as a null string
void writeTexts(vesk_payload* payload, const Json& values);

// A presence marker and, unless the value is null or empty, what `write` writes.
void writeOptional(vesk_payload* payload, const Json& value, void (*write)(vesk_payload*, const Json&));

// Members of records that mean nothing to clients. A zero is an empty list too.
void writeZeros(vesk_payload* payload, int count);
void writeNullTexts(vesk_payload* payload, int count);

// What `write` writes, behind its length in bytes; `counted` of the length word's own four belong to that.
void writeMeasured(vesk_payload* payload, unsigned counted, const std::function<void()>& write);

// What every request begins with, also one from a service to its client.
void writeHeader(vesk_payload* payload, const std::string& descriptor);

void writeException(vesk_payload* reply, const RemoteException& exception);

// Messages between the processes of the simulated device: one JSON text. Reading throws std::runtime_error.
void writeMessage(vesk_payload* payload, const Json& message);
Json readMessage(vesk_buffer* buffer);
Json parseMessage(const std::string& text);

}  // namespace orvel::sim
