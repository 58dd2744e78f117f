#include "device/Wire.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <unordered_map>
#include <utility>

namespace orvel::sim {
namespace {

constexpr std::int32_t kHeaderWords[] = {0, -1, 0x53595354};
constexpr char32_t kReplacement = 0xFFFD;
// Of a message's values in each other. The device's own have a tenth of that; a stranger's million would keep it busy
// for seconds.
constexpr std::size_t kMaxDepth = 100;

// Builds a message, whose keys are known to differ: the library's own way would look for each among all before it, and
// an object may have thousands.
class MessageBuilder : public nlohmann::json_sax<Json> {
 public:
  Json take() { return std::move(m_message); }

  bool null() override { return add({}); }
  bool boolean(bool value) override { return add(value); }
  bool number_integer(number_integer_t value) override { return add(value); }
  bool number_unsigned(number_unsigned_t value) override { return add(value); }
  bool number_float(number_float_t value, const string_t&) override { return add(value); }
  bool string(string_t& value) override { return add(std::move(value)); }
  bool binary(binary_t&) override { return false; }
  bool start_object(std::size_t) override { return open(Json::object()); }
  bool key(string_t& key) override {
    m_key = std::move(key);
    return true;
  }
  bool end_object() override { return close(); }
  bool start_array(std::size_t) override { return open(Json::array()); }
  bool end_array() override { return close(); }
  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception& error) override {
    throw std::runtime_error(error.what());
  }

 private:
  bool add(Json value) {
    if (m_open.empty()) {
      m_message = std::move(value);
      m_last = &m_message;
    } else if (Json& parent = *m_open.back(); parent.is_array()) {
      m_last = &parent.get_ref<Json::array_t&>().emplace_back(std::move(value));
    } else {
      Json::object_t::Container& entries = parent.get_ref<Json::object_t&>();
      m_last = &entries.emplace_back(std::move(m_key), std::move(value)).second;
    }
    return true;
  }
  bool open(Json value) {
    if (m_open.size() == kMaxDepth) throw std::runtime_error("a message is nested too deeply");
    add(std::move(value));
    m_open.push_back(m_last);
    return true;
  }
  bool close() {
    m_open.pop_back();
    return true;
  }

  Json m_message;
  Json* m_last = nullptr;     // what was added last
  std::vector<Json*> m_open;  // each in the one before; what is open does not move
  std::string m_key;
};

// The endpoints of other processes that are kept here.
struct KeptRemote {
  std::uint64_t number;
  std::size_t times;
};
using KeptRemotes = std::unordered_map<vesk_remote*, KeptRemote>;
KeptRemotes& keptRemotes() {
  static KeptRemotes kept;
  return kept;
}

void letGo(vesk_remote* remote) {
  const auto kept = keptRemotes().find(remote);
  if (--kept->second.times == 0) keptRemotes().erase(kept);
  vesk_remote_release(remote);
}

RemotePtr keep(vesk_remote* remote) {
  static std::uint64_t s_last = 0;
  if (remote == nullptr) return nullptr;
  const auto [kept, isNew] = keptRemotes().try_emplace(remote, KeptRemote{s_last + 1, 0});
  if (isNew) ++s_last;
  ++kept->second.times;
  return {remote, letGo};
}

// What no writer may take for a number: other kinds, and what the number's type does not hold.
template <typename Number>
Number wholeNumber(const Json& value) {
  const bool fits = value.is_number_unsigned()
                        ? value.get<std::uint64_t>() <= static_cast<std::uint64_t>(std::numeric_limits<Number>::max())
                        : value.is_number_integer() && value.get<std::int64_t>() >= std::numeric_limits<Number>::min();
  if (!fits) throw std::out_of_range("expected a whole number of " + std::to_string(8 * sizeof(Number)) + " bits");
  return value.get<Number>();
}

bool isHighSurrogate(char32_t unit) {
  return unit >= 0xD800 && unit < 0xDC00;
}
bool isLowSurrogate(char32_t unit) {
  return unit >= 0xDC00 && unit < 0xE000;
}

void appendUtf8(std::string& text, char32_t point) {
  const auto tail = [&](unsigned shift) { text += static_cast<char>(0x80U | ((point >> shift) & 0x3FU)); };
  if (point < 0x80) {
    text += static_cast<char>(point);
  } else if (point < 0x800) {
    text += static_cast<char>(0xC0U | (point >> 6U));
    tail(0);
  } else if (point < 0x10000) {
    text += static_cast<char>(0xE0U | (point >> 12U));
    tail(6);
    tail(0);
  } else {
    text += static_cast<char>(0xF0U | (point >> 18U));
    tail(12);
    tail(6);
    tail(0);
  }
}

}  // namespace

std::string plainText(const std::exception& error) {
  std::string text = error.what();
  const std::size_t bracket = text[0] == '[' ? text.find("] ") : std::string::npos;
  if (bracket != std::string::npos) text.erase(0, bracket + 2);
  const auto says = [&](const char* words) { return text.find(words) != std::string::npos; };
  constexpr std::string_view kOverflow = "number overflow parsing ";
  if (text.rfind(kOverflow, 0) == 0) return "a number is too large: " + text.substr(kOverflow.size());
  constexpr std::string_view kMistake = "parse error at ";
  if (text.rfind(kMistake, 0) != 0) return text;
  const std::string place = text.substr(kMistake.size(), text.find(':') - kMistake.size());  // "line 1, column 2"
  if (says("unexpected end of input") || says("missing closing quote")) {
    return place == "line 1, column 1" ? "it is empty" : "not JSON: it ends in the middle, at " + place;
  }
  return "not JSON at " + place + (says("ill-formed UTF-8") ? ": a text is not UTF-8" : "");
}

std::uint64_t endpointNumber(const RemotePtr& remote) {
  return keptRemotes().at(remote.get()).number;
}

bool isKept(std::uint64_t endpoint) {
  const KeptRemotes& kept = keptRemotes();
  return std::any_of(kept.begin(), kept.end(), [&](const auto& remote) { return remote.second.number == endpoint; });
}

std::string toUtf8(const std::uint16_t* units, std::size_t count) {
  std::string text;
  text.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    char32_t point = units[i];
    if (isHighSurrogate(point) && i + 1 < count && isLowSurrogate(units[i + 1])) {
      point = 0x10000 + ((point - 0xD800) << 10U) + (units[++i] - char32_t{0xDC00});
    } else if (isHighSurrogate(point) || isLowSurrogate(point)) {
      point = kReplacement;
    }
    appendUtf8(text, point);
  }
  return text;
}

void RequestReader::check() {
  if (vesk_buffer_last_error(m_buffer) != 0) {
    throw RemoteException(kBadParcelableException, "the request ends early or holds something else here");
  }
}

std::int32_t RequestReader::i32() {
  const std::int32_t value = vesk_read_i32(m_buffer);
  check();
  return value;
}

std::int64_t RequestReader::i64() {
  const std::int64_t value = vesk_read_i64(m_buffer);
  check();
  return value;
}

double RequestReader::f64() {
  const double value = vesk_read_f64(m_buffer);
  check();
  return value;
}

Json RequestReader::text() {
  unsigned int length = 0;
  const std::uint16_t* units = vesk_read_utf16_string(m_buffer, &length);
  check();
  return units == nullptr ? Json() : Json(toUtf8(units, length));
}

Json RequestReader::texts() {
  const std::int32_t count = vesk_read_array_length(m_buffer);
  check();
  if (count < 0) return {};
  Json texts = Json::array();
  for (std::int32_t i = 0; i < count; ++i) texts.push_back(text());
  return texts;
}

RemotePtr RequestReader::endpoint() {
  RemotePtr remote = keep(vesk_read_endpoint(m_buffer));
  check();
  m_endpoints.push_back(remote);
  return remote;
}

bool RequestReader::present() {
  const std::int32_t marker = i32();
  if (marker != 0 && marker != 1) {
    throw RemoteException(kBadParcelableException,
                          "a presence marker holds " + std::to_string(marker) + ", neither 0 nor 1");
  }
  return marker == 1;
}

void RequestReader::measured(const char* what, std::size_t counted, const std::function<void()>& read) {
  const std::int32_t announced = i32();
  const std::size_t start = vesk_buffer_remaining(m_buffer) + counted;
  read();
  const std::size_t size = start - vesk_buffer_remaining(m_buffer);
  if (announced < 0 || static_cast<std::size_t>(announced) != size) {
    throw RemoteException(kBadParcelableException, std::string("the length of ") + what + " is given as " +
                                                       std::to_string(announced) + " bytes and is " +
                                                       std::to_string(size));
  }
}

void RequestReader::expectHeader(const std::string& descriptor) {
  for (const std::int32_t expected : kHeaderWords) {
    if (const std::int32_t word = i32(); word != expected) {
      throw RemoteException(kBadParcelableException, "the request header holds " + std::to_string(word) + " where " +
                                                         std::to_string(expected) + " belongs");
    }
  }
  if (const Json given = text(); given != descriptor) {
    throw RemoteException(kSecurityException,
                          "the request is for the interface " + given.dump() + ", this is " + descriptor);
  }
}

void RequestReader::expectEnd() {
  if (const std::size_t left = vesk_buffer_remaining(m_buffer); left != 0) {
    throw RemoteException(kBadParcelableException, std::to_string(left) + " bytes follow the last argument");
  }
}

Json readInt32(RequestReader& reader) {
  return reader.i32();
}
Json readInt64(RequestReader& reader) {
  return reader.i64();
}
Json readDouble(RequestReader& reader) {
  const double value = reader.f64();
  if (std::isnan(value)) return "NaN";
  if (std::isinf(value)) return value > 0 ? "Infinity" : "-Infinity";
  return value;
}
Json readFlag(RequestReader& reader) {
  return reader.i32() != 0;
}
Json readNothing(RequestReader&) {
  return {};
}
Json readText(RequestReader& reader) {
  return reader.text();
}
Json readPresentText(RequestReader& reader) {
  Json text = reader.text();
  if (text.is_null()) throw RemoteException(kBadParcelableException, "a null string stands where there must be a text");
  return text;
}
Json readTexts(RequestReader& reader) {
  return reader.texts();
}
Json readEndpoint(RequestReader& reader) {
  return "endpoint of process " + std::to_string(vesk_remote_pid(reader.endpoint().get()));
}

// Writing fails only for lack of memory or beyond the size limit; vesk then refuses to send the payload.
void writeNothing(vesk_payload*, const Json&) {}
void writeFlag(vesk_payload* payload, const Json& value) {
  vesk_write_i32(payload, value.get<bool>() ? 1 : 0);
}
void writeInt32(vesk_payload* payload, const Json& value) {
  vesk_write_i32(payload, wholeNumber<std::int32_t>(value));
}
void writeInt64(vesk_payload* payload, const Json& value) {
  vesk_write_i64(payload, wholeNumber<std::int64_t>(value));
}
void writeText(vesk_payload* payload, const Json& value) {
  if (value.is_null()) {
    vesk_write_i32(payload, -1);
  } else if (!value.is_string()) {
    throw std::invalid_argument("expected a string, not " + value.dump());
  } else {
    vesk_write_utf16_cstring(payload, value.get_ref<const std::string&>().c_str());
  }
}
void writeTexts(vesk_payload* payload, const Json& values) {
  vesk_write_array_length(payload, static_cast<std::int32_t>(values.size()));
  for (const Json& text : values) writeText(payload, text);
}

void writeOptional(vesk_payload* payload, const Json& value, void (*write)(vesk_payload*, const Json&)) {
  vesk_write_i32(payload, value.empty() ? 0 : 1);
  if (!value.empty()) write(payload, value);
}

void writeZeros(vesk_payload* payload, int count) {
  for (; count > 0; --count) vesk_write_i32(payload, 0);
}
void writeNullTexts(vesk_payload* payload, int count) {
  for (; count > 0; --count) writeText(payload, {});
}

void writeMeasured(vesk_payload* payload, unsigned counted, const std::function<void()>& write) {
  const unsigned word = vesk_payload_get_position(payload);
  vesk_write_i32(payload, 0);
  const unsigned start = vesk_payload_get_position(payload) - counted;
  write();
  const unsigned end = vesk_payload_get_position(payload);
  vesk_payload_set_position(payload, word);
  vesk_write_i32(payload, static_cast<std::int32_t>(end - start));
  vesk_payload_set_position(payload, end);
}

void writeHeader(vesk_payload* payload, const std::string& descriptor) {
  for (const std::int32_t word : kHeaderWords) vesk_write_i32(payload, word);
  vesk_write_utf16_cstring(payload, descriptor.c_str());
}

void writeException(vesk_payload* reply, const RemoteException& exception) {
  vesk_write_i32(reply, exception.code);
  vesk_write_utf16_cstring(reply, exception.what());
  vesk_write_i32(reply, exception.trace.empty() ? 0 : 1);
  if (!exception.trace.empty()) vesk_write_utf16_cstring(reply, exception.trace.c_str());
}

void writeMessage(vesk_payload* payload, const Json& message) {
  vesk_write_utf16_cstring(payload, message.dump(-1, ' ', false, Json::error_handler_t::replace).c_str());
}

Json readMessage(vesk_buffer* buffer) {
  unsigned int length = 0;
  const std::uint16_t* units = vesk_read_utf16_string(buffer, &length);
  if (units == nullptr) throw std::runtime_error("a message without text");
  return parseMessage(toUtf8(units, length));
}

Json parseMessage(const std::string& text) {
  MessageBuilder builder;
  Json::sax_parse(text, &builder);
  return builder.take();
}

}  // namespace orvel::sim
