#include "RawMessage.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>

#include <cctype>
#include <cstring>
#include <utility>

namespace orvel::hostile {

using namespace std::string_literals;

const std::string kHello = "\0AUTH EXTERNAL\r\nDATA\r\nNEGOTIATE_UNIX_FD\r\nBEGIN\r\n"s;
const std::string kAnswer = "DATA\r\nOK 0123456789abcdef0123456789abcdef\r\nAGREE_UNIX_FD\r\n";

// ---- Body and Message ----

Body& Body::append(std::string_view bytes) {
  m_bytes += bytes;
  return *this;
}

Body& Body::align(std::size_t boundary) {
  m_bytes.resize((m_bytes.size() + boundary - 1) / boundary * boundary);
  return *this;
}

Body& Body::number(std::uint64_t value, int size) {
  align(static_cast<std::size_t>(size));
  for (int n = 0; n < size; ++n) {
    const int byte = m_big ? size - 1 - n : n;
    m_bytes += static_cast<char>(value >> (8 * byte));
  }
  return *this;
}

Body& Body::text(std::string_view value) {
  return u32(static_cast<std::uint32_t>(value.size())).append(value).append(std::string_view("\0", 1));
}

Body& Body::array(std::string_view bytes) {
  return u32(static_cast<std::uint32_t>(bytes.size())).append(bytes);
}

Body& Body::array(const std::vector<std::uint64_t>& numbers) {
  u32(static_cast<std::uint32_t>(numbers.size() * 8)).align(8);
  for (const std::uint64_t value : numbers) u64(value);
  return *this;
}

Body& Body::field(char code, char type, std::string_view value) {
  align(8).append({&code, 1}).append("\1").append({&type, 1}).append(std::string_view("\0", 1));
  if (type != 'g') return text(value);
  m_bytes += static_cast<char>(value.size());
  return append(value).append(std::string_view("\0", 1));
}

Body& Body::field(char code, std::uint32_t value) {
  return align(8).append({&code, 1}).append(std::string_view("\1u\0", 3)).u32(value);
}

std::string Message::bytes() const {
  Body fields(endian == 'B');
  if (path) fields.field(1, 'o', *path);
  if (interface) fields.field(2, 's', *interface);
  if (member) fields.field(3, 's', *member);
  if (reply_serial) fields.field(5, *reply_serial);
  if (signature) fields.field(8, 'g', *signature);
  if (descriptors) fields.field(9, *descriptors);
  if (!extra_fields.empty()) fields.align(8).append(extra_fields);

  Body whole(endian == 'B');
  const char start[] = {endian, static_cast<char>(type), static_cast<char>(flags), static_cast<char>(version)};
  whole.append({start, sizeof(start)});
  whole.u32(body_length.value_or(static_cast<std::uint32_t>(body.size()))).u32(serial);
  whole.u32(fields_length.value_or(static_cast<std::uint32_t>(fields.bytes().size())));
  return whole.append(fields.bytes()).align(8).append(body).bytes();
}

// ---- Words ----

Words& Words::i32(std::int32_t value) {
  m_bytes += Body().u32(static_cast<std::uint32_t>(value)).bytes();
  return *this;
}

Words& Words::i64(std::int64_t value) {
  m_bytes += Body().u64(static_cast<std::uint64_t>(value)).bytes();
  return *this;
}

Words& Words::text(std::string_view ascii) {
  i32(static_cast<std::int32_t>(ascii.size()));
  for (const char letter : ascii) m_bytes.append({letter, '\0'});
  m_bytes.append(ascii.size() % 2 == 0 ? 4 : 2, '\0');
  return *this;
}

Words& Words::endpoint(std::int32_t index) {
  m_bytes += "PSEV";
  return i32(index);
}

// ---- Line ----

bool Line::send(std::string_view bytes, const std::vector<int>& descriptors) {
  constexpr int kLimitMs = 2000;
  constexpr std::size_t kMostDescriptors = 253;
  while (!bytes.empty()) {
    iovec data{const_cast<char*>(bytes.data()), bytes.size()};
    msghdr header{};
    header.msg_iov = &data;
    header.msg_iovlen = 1;
    alignas(cmsghdr) char control[CMSG_SPACE(kMostDescriptors * sizeof(int))];
    if (!descriptors.empty()) {
      const std::size_t size = descriptors.size() * sizeof(int);
      header.msg_control = control;
      header.msg_controllen = CMSG_SPACE(size);
      cmsghdr* attached = CMSG_FIRSTHDR(&header);
      attached->cmsg_level = SOL_SOCKET;
      attached->cmsg_type = SCM_RIGHTS;
      attached->cmsg_len = CMSG_LEN(size);
      std::memcpy(CMSG_DATA(attached), descriptors.data(), size);
    }
    const ssize_t sent = ::sendmsg(m_socket.get(), &header, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent > 0) {
      bytes.remove_prefix(static_cast<std::size_t>(sent));
      if (!descriptors.empty()) return bytes.empty() || send(bytes);
      continue;
    }
    if (errno != EAGAIN && errno != EINTR) return false;
    pollfd ready{m_socket.get(), POLLOUT, 0};
    if (::poll(&ready, 1, kLimitMs) == 0) return false;
  }
  return true;
}

bool Line::is_dropped(int limit_ms) {
  char bytes[65536];
  pollfd ready{m_socket.get(), POLLIN, 0};
  while (::poll(&ready, 1, limit_ms) > 0) {
    if (::recv(m_socket.get(), bytes, sizeof(bytes), MSG_DONTWAIT) <= 0) return true;
  }
  return false;
}

bool Line::read_more(int limit_ms) {
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
  if (size <= 0) return false;
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

bool Line::finish_handshake(int limit_ms) {
  while (m_in_handshake) {
    // A client's part ends with BEGIN, a service's with its answer about descriptors.
    for (const std::string_view last : {"BEGIN\r\n", "AGREE_UNIX_FD\r\n"}) {
      if (const std::size_t found = m_input.find(last); found != std::string::npos) {
        m_input.erase(0, found + last.size());
        m_in_handshake = false;
      }
    }
    if (m_in_handshake && !read_more(limit_ms)) return false;
  }
  return true;
}

std::optional<Received> Line::receive(int limit_ms) {
  const auto word = [&](std::size_t at) {
    std::uint32_t value = 0;
    if (at + sizeof(value) <= m_input.size()) std::memcpy(&value, m_input.data() + at, sizeof(value));
    return std::size_t{value};
  };
  if (!finish_handshake(limit_ms)) return std::nullopt;
  constexpr std::size_t kFixed = 16;
  while (m_input.size() < kFixed && read_more(limit_ms)) {
  }
  const std::size_t body_at = kFixed + (word(12) + 7) / 8 * 8;
  const std::size_t size = body_at + word(4);
  while (m_input.size() < kFixed || m_input.size() < size) {
    if (!read_more(limit_ms)) return std::nullopt;
  }
  Received message;
  message.type = static_cast<std::uint8_t>(m_input[1]);
  message.flags = static_cast<std::uint8_t>(m_input[2]);
  message.serial = static_cast<std::uint32_t>(word(8));
  const std::size_t end = kFixed + word(12);
  for (std::size_t at = kFixed; at + 8 <= end; at = (at + 7) / 8 * 8) {
    const char code = m_input[at];
    const char type = m_input[at + 2];
    if (code == 5) message.reply_serial = static_cast<std::uint32_t>(word(at + 4));
    if (code == 3) message.member = m_input.substr(at + 8, word(at + 4));
    at += type == 'u' ? 8 : type == 'g' ? 6 + static_cast<unsigned char>(m_input[at + 4]) : 9 + word(at + 4);
  }
  message.body = m_input.substr(body_at, size - body_at);
  m_input.erase(0, size);
  return message;
}

std::string path_of(const std::string& service) {
  constexpr char kHex[] = "0123456789abcdef";
  std::string path = "/service/";
  for (const char letter : service) {
    const auto byte = static_cast<unsigned char>(letter);
    if (std::isalnum(byte) != 0) {
      path += letter;
    } else {
      path += {'_', kHex[byte >> 4U], kHex[byte & 0xFU]};
    }
  }
  return path;
}

}  // namespace orvel::hostile
