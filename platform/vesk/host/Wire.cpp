#include "Wire.h"

#include <systemd/sd-id128.h>
#include <unistd.h>

#include <charconv>
#include <cstdlib>
#include <string_view>

#include "Descriptors.h"

namespace vesk {
namespace {

constexpr std::size_t kMaxQueuedMessages = 1024;
constexpr std::size_t kMaxQueuedBytes = 2 * kMaxMessageBytes;
constexpr std::string_view kThreadPrefix = ":1.";  // D-Bus wants the form of a connection's name
constexpr std::size_t kMessageOverhead = 256;      // header fields and sd-bus's own bookkeeping, roughly

}  // namespace

BusPtr start_bus(UniqueFd socket, HandshakeRole role, sd_bus_message_handler_t handler, void* userdata) {
  sd_bus* raw = nullptr;
  check(sd_bus_new(&raw));
  BusPtr bus(raw);
  if (role == HandshakeRole::kAccepting) {
    sd_id128_t id{};
    check(sd_id128_randomize(&id));
    check(sd_bus_set_server(raw, 1, id));
  }
  check(sd_bus_negotiate_fds(raw, 1));
  check(sd_bus_set_fd(raw, socket.get(), socket.get()));
  remember_descriptor(socket.release());  // the bus's now
  if (handler != nullptr) check(sd_bus_add_filter(raw, nullptr, handler, userdata));
  check(sd_bus_start(raw));
  return bus;
}

std::string object_path(const char* name) {
  char* path = nullptr;
  check(sd_bus_path_encode("/service", name, &path));
  const std::unique_ptr<char, decltype(&std::free)> owner(path, &std::free);
  return path;
}

MessagePtr new_call(sd_bus* bus, const char* path, const char* member, bool expect_reply) {
  sd_bus_message* raw = nullptr;
  check(sd_bus_message_new_method_call(bus, &raw, nullptr, path, kInterface, member));
  MessagePtr message(raw);
  if (!expect_reply) check(sd_bus_message_set_expect_reply(raw, 0));
  return message;
}

void append_bytes(sd_bus_message* message, const Parcel& parcel) {
  check(sd_bus_message_append_array(message, 'y', parcel.bytes().data(), parcel.bytes().size()));
}

void append_numbers(sd_bus_message* message, const std::vector<std::uint64_t>& numbers) {
  check(sd_bus_message_append_array(message, 't', numbers.data(), numbers.size() * sizeof(numbers[0])));
}

pid_t this_thread() {
  thread_local const pid_t thread = gettid();
  return thread;
}

void append_thread(sd_bus_message* message, pid_t thread) {
  check(sd_bus_message_set_sender(message, (std::string(kThreadPrefix) + std::to_string(thread)).c_str()));
}

pid_t thread_of(sd_bus_message* message) {
  const char* const sender = sd_bus_message_get_sender(message);
  const std::string_view name = sender == nullptr ? "" : sender;
  if (name.substr(0, kThreadPrefix.size()) != kThreadPrefix) return 0;
  pid_t thread = 0;
  const char* const end = name.data() + name.size();
  const auto [behind, error] = std::from_chars(name.data() + kThreadPrefix.size(), end, thread);
  return error == std::errc() && behind == end && thread > 0 ? thread : 0;
}

bool read_bytes(sd_bus_message* message, Parcel* parcel) {
  const void* data = nullptr;
  std::size_t size = 0;
  if (sd_bus_message_read_array(message, 'y', &data, &size) < 0 || size > kMaxMessageBytes) return false;
  parcel->assign(data, size);
  return true;
}

bool read_answer(sd_bus_message* message, int* status, Parcel* parcel) {
  std::uint8_t type = 0;
  std::int32_t value = 0;
  if (sd_bus_message_get_type(message, &type) < 0 || type != SD_BUS_MESSAGE_METHOD_RETURN ||
      sd_bus_message_has_signature(message, "iay") <= 0 || sd_bus_message_read_basic(message, 'i', &value) < 0) {
    return false;
  }
  *status = value;
  return read_bytes(message, parcel);
}

bool is_call(sd_bus_message* message, const char* member, const char* signature) {
  return sd_bus_message_is_method_call(message, kInterface, member) > 0 &&
         (signature == nullptr || sd_bus_message_has_signature(message, signature) > 0);
}

bool expects_reply(sd_bus_message* message) {
  return sd_bus_message_get_expect_reply(message) > 0;
}

int Outbox::send(sd_bus* bus, sd_bus_message* message, std::size_t bytes) {
  if (!admits(bus, bytes)) return -ENOBUFS;
  const int result = sd_bus_send(bus, message, nullptr);
  if (result < 0) return result;
  sent(bytes);
  return 0;
}

bool Outbox::admits(sd_bus* bus, std::size_t bytes) {
  forget_written(bus);
  return m_sizes.size() < kMaxQueuedMessages && m_bytes + bytes + kMessageOverhead <= kMaxQueuedBytes;
}

void Outbox::sent(std::size_t bytes) {
  m_sizes.push_back(bytes + kMessageOverhead);
  m_bytes += bytes + kMessageOverhead;
}

void Outbox::forget_written(sd_bus* bus) {
  std::uint64_t queued = 0;
  if (sd_bus_get_n_queued_write(bus, &queued) < 0) queued = 0;
  while (m_sizes.size() > queued) {
    m_bytes -= m_sizes.front();
    m_sizes.pop_front();
  }
}

}  // namespace vesk
