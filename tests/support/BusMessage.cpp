#include "support/BusMessage.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <utility>

namespace orvel::test {

using namespace std::string_literals;
using namespace std::string_view_literals;

const std::string kBusHello = "\0AUTH EXTERNAL\r\nDATA\r\nNEGOTIATE_UNIX_FD\r\nBEGIN\r\n"s;
const std::string kBusAnswer = "DATA\r\nOK 0123456789abcdef0123456789abcdef\r\nAGREE_UNIX_FD\r\n";

// ---- Messages ----

BusBody& BusBody::raw(std::string_view bytes) {
  m_bytes += bytes;
  return *this;
}

BusBody& BusBody::align(std::size_t boundary) {
  m_bytes.resize((m_bytes.size() + boundary - 1) / boundary * boundary);
  return *this;
}

BusBody& BusBody::number(std::uint64_t value, int size) {
  align(static_cast<std::size_t>(size));
  for (int n = 0; n < size; ++n) m_bytes += static_cast<char>(value >> (8 * n));
  return *this;
}

BusBody& BusBody::array(const std::vector<std::uint64_t>& numbers) {
  u32(static_cast<std::uint32_t>(numbers.size() * 8)).align(8);
  for (const std::uint64_t value : numbers) u64(value);
  return *this;
}

std::string BusMessage::bytes() const {
  BusBody fields;  // in a message they begin at a multiple of 8
  const char size = static_cast<char>(signature.value_or("").size());
  if (path) fields.align(8).raw("\1\1o\0"sv).text(*path);
  if (interface) fields.align(8).raw("\2\1s\0"sv).text(*interface);
  if (member) fields.align(8).raw("\3\1s\0"sv).text(*member);
  if (error_name) fields.align(8).raw("\4\1s\0"sv).text(*error_name);
  if (reply_serial) fields.align(8).raw("\5\1u\0"sv).u32(*reply_serial);
  if (sender) fields.align(8).raw("\7\1s\0"sv).text(*sender);
  if (signature) fields.align(8).raw("\x8\1g\0"sv).raw({&size, 1}).raw(*signature).raw("\0"sv);
  if (descriptors) fields.align(8).raw("\x9\1u\0"sv).u32(*descriptors);

  BusBody whole;
  const char start[] = {'l', static_cast<char>(type), static_cast<char>(flags), 1};
  whole.raw({start, sizeof(start)});
  whole.u32(body_length.value_or(static_cast<std::uint32_t>(body.size()))).u32(serial);
  return whole.array(fields.bytes()).align(8).raw(body).bytes();
}

namespace {

// The object path of a service.
std::string path_of(const std::string& service) {
  std::string path = "/service/";
  for (const char letter : service) {
    constexpr char kHex[] = "0123456789abcdef";
    const auto byte = static_cast<unsigned char>(letter);
    if (std::isalnum(byte) != 0) path += letter;
    if (std::isalnum(byte) == 0) path += {'_', kHex[byte >> 4U], kHex[byte & 0xFU]};
  }
  return path;
}

BusMessage message(std::string path, const char* member, std::uint32_t serial, bool answered, const char* signature,
                   const BusBody& body) {
  BusMessage message;
  message.path = std::move(path);
  message.member = member;
  message.serial = serial;
  message.flags = answered ? 0 : kNoReplyExpected;
  if (!body.bytes().empty()) message.signature = signature;
  message.body = body.bytes();
  return message;
}

}  // namespace

BusMessage bus_open(const std::string& service) {
  return message(path_of(service), "Open", 1, false, "", {});
}

BusMessage bus_call(const std::string& service, std::uint32_t serial, std::uint32_t code, std::string_view bytes,
                    const Endpoints& endpoints, bool channel) {
  BusBody body;
  body.u32(code).array(bytes);
  if (endpoints) body.array(*endpoints);
  if (endpoints && channel) body.u32(0);
  const char* const signature = !endpoints ? "uay" : channel ? "uayath" : "uayat";
  BusMessage call = message(path_of(service), "Call", serial, true, signature, body);
  if (endpoints && channel) call.descriptors = 1;
  return call;
}

BusMessage bus_answer(std::uint32_t to, std::int32_t status, std::string_view bytes) {
  BusMessage answer;
  answer.type = kBusReturn;
  answer.flags = kNoReplyExpected;
  answer.serial = to + 1000;
  answer.interface.reset();
  answer.reply_serial = to;
  answer.signature = "iay";
  answer.body = BusBody().u32(static_cast<std::uint32_t>(status)).array(bytes).bytes();
  return answer;
}

BusMessage bus_callback(std::uint32_t serial, std::uint64_t endpoint, std::uint32_t code, std::string_view bytes,
                        bool answered) {
  return message("/", "Call", serial, answered, "tuay", BusBody().u64(endpoint).u32(code).array(bytes));
}

BusMessage bus_release(std::uint64_t endpoint, std::uint32_t count) {
  return message("/", "Release", 50, false, "tu", BusBody().u64(endpoint).u32(count));
}

// ---- Connections ----

std::pair<vesk::UniqueFd, vesk::UniqueFd> socket_pair(int type) {
  int ends[2];
  vesk::check_errno(::socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, ends));
  return {vesk::UniqueFd(ends[0]), vesk::UniqueFd(ends[1])};
}

BusLine BusLine::to(const std::string& file) {
  vesk::UniqueFd socket(vesk::check_errno(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  file.copy(address.sun_path, sizeof(address.sun_path) - 1);
  vesk::check_errno(::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)));
  return BusLine(std::move(socket));
}

bool BusLine::send(std::string_view bytes, const std::vector<int>& descriptors, std::size_t piece) {
  constexpr int kLimitMs = 2000;
  constexpr std::size_t kMostDescriptors = 253;  // that one message of a socket takes
  alignas(cmsghdr) char control[CMSG_SPACE(kMostDescriptors * sizeof(int))] = {};
  std::size_t attachments = descriptors.size() * sizeof(int);
  while (!bytes.empty()) {
    iovec data{const_cast<char*>(bytes.data()), std::min(bytes.size(), piece)};
    msghdr header{};
    header.msg_iov = &data;
    header.msg_iovlen = 1;
    if (attachments != 0) {
      header.msg_control = control;
      header.msg_controllen = CMSG_SPACE(attachments);
      cmsghdr* attached = CMSG_FIRSTHDR(&header);
      attached->cmsg_level = SOL_SOCKET;
      attached->cmsg_type = SCM_RIGHTS;
      attached->cmsg_len = CMSG_LEN(attachments);
      std::memcpy(CMSG_DATA(attached), descriptors.data(), attachments);
    }
    const ssize_t sent = ::sendmsg(m_socket.get(), &header, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent > 0) {
      bytes.remove_prefix(static_cast<std::size_t>(sent));
      attachments = 0;
      continue;
    }
    if (errno != EAGAIN && errno != EINTR) return false;
    pollfd ready{m_socket.get(), POLLOUT, 0};
    if (::poll(&ready, 1, kLimitMs) == 0) return false;
  }
  return true;
}

bool BusLine::is_dropped(int limit_ms) {
  while (read_more(limit_ms)) m_input.clear();
  return m_has_ended;
}

bool BusLine::read_more(int limit_ms) {
  pollfd ready{m_socket.get(), POLLIN, 0};
  if (::poll(&ready, 1, limit_ms) <= 0) return false;
  char bytes[65536];
  alignas(cmsghdr) char control[CMSG_SPACE(16 * sizeof(int))];
  iovec data{bytes, sizeof(bytes)};
  msghdr header{};
  header.msg_iov = &data;
  header.msg_iovlen = 1;
  header.msg_control = control;
  header.msg_controllen = sizeof(control);
  const ssize_t size = ::recvmsg(m_socket.get(), &header, MSG_CMSG_CLOEXEC);
  m_has_ended = size <= 0;
  if (m_has_ended) return false;
  for (cmsghdr* attached = CMSG_FIRSTHDR(&header); attached != nullptr; attached = CMSG_NXTHDR(&header, attached)) {
    if (attached->cmsg_type != SCM_RIGHTS) continue;
    for (std::size_t at = 0; at + CMSG_LEN(0) < attached->cmsg_len; at += sizeof(int)) {
      int descriptor = -1;
      std::memcpy(&descriptor, CMSG_DATA(attached) + at, sizeof(descriptor));
      m_descriptors.emplace_back(descriptor);
    }
  }
  m_input.append(bytes, static_cast<std::size_t>(size));
  return true;
}

bool BusLine::finish_handshake(int limit_ms) {
  while (m_in_handshake) {
    // A client's part ends with BEGIN, a service's with its answer about descriptors.
    for (const std::string_view last : {"BEGIN\r\n"sv, "AGREE_UNIX_FD\r\n"sv}) {
      if (const std::size_t found = m_input.find(last); found != std::string::npos) {
        m_input.erase(0, found + last.size());
        m_in_handshake = false;
      }
    }
    if (m_in_handshake && !read_more(limit_ms)) return false;
  }
  return true;
}

std::optional<BusReceived> BusLine::receive(int limit_ms) {
  const auto word = [&](std::size_t at) {
    std::uint32_t value = 0;
    if (at + sizeof(value) <= m_input.size()) std::memcpy(&value, m_input.data() + at, sizeof(value));
    return value;
  };
  if (!finish_handshake(limit_ms)) return std::nullopt;
  constexpr std::size_t kFixed = 16;
  const auto body_at = [&] { return kFixed + (word(12) + 7) / 8 * 8; };
  while (m_input.size() < kFixed || m_input.size() < body_at() + word(4)) {
    if (!read_more(limit_ms)) return std::nullopt;
  }
  BusReceived message;
  message.type = static_cast<std::uint8_t>(m_input[1]);
  message.serial = word(8);
  const std::size_t end = kFixed + word(12);
  for (std::size_t at = kFixed; at + 8 <= end; at = (at + 7) / 8 * 8) {
    const char code = m_input[at];
    const char type = m_input[at + 2];
    if (code == 5) message.reply_serial = word(at + 4);
    if (code == 3) message.member = m_input.substr(at + 8, word(at + 4));
    at += type == 'u' ? 8 : type == 'g' ? 6 + static_cast<unsigned char>(m_input[at + 4]) : 9 + word(at + 4);
  }
  message.body = m_input.substr(body_at(), word(4));
  m_input.erase(0, body_at() + word(4));
  return message;
}

}  // namespace orvel::test
