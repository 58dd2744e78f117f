#include "Seat.h"

#include <systemd/sd-id128.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>

#include "Descriptors.h"

namespace vesk {
namespace {

// Unique among all that share the directory: process numbers are not, with several PID namespaces.
std::string new_socket_file() {
  sd_id128_t random{};
  check(sd_id128_randomize(&random));
  char suffix[2 * sizeof(std::uint64_t) + 1];
  std::snprintf(suffix, sizeof(suffix), "%016" PRIx64, random.qwords[0]);
  return std::string(kSocketPrefix) + std::to_string(::getpid()) + '-' + suffix;
}

}  // namespace

void Seat::serve_device(int directory) {
  if (m_device_lock && id_of(m_device_lock.get()) == id_of(directory, kDeviceLock)) return;
  m_device_lock = hold_device_lock(directory);
}

bool Seat::has_rival(int directory) const {
  return m_device_lock && id_of(m_device_lock.get()) != id_of(directory, kDeviceLock) && device_is_alive(directory);
}

void Seat::give_up_device() {
  forget_descriptor(m_device_lock.get());
  m_device_lock.reset();
}

bool Seat::has_socket_in(int directory) const {
  return is_taken() && id_of(directory, m_socket_file) == m_socket;
}

UniqueFd Seat::take(int directory) {
  if (has_socket_in(directory)) return {};
  remove_leavings(directory);
  std::string file = new_socket_file();
  UniqueFd listener = listen_on(directory, file);
  m_socket = id_of(directory, file);
  m_socket_file = std::move(file);
  return listener;
}

bool Seat::may_publish(int directory, const std::string& file) const {
  const std::string served_by = link_target(directory, file);
  return served_by.empty() || served_by == m_socket_file || !someone_listens(directory, served_by);
}

void Seat::publish(int directory, const std::string& file) {
  if (link_target(directory, file) == m_socket_file) return;
  if (!may_publish(directory, file)) check(-EADDRINUSE);
  // Renamed into place, so that a reader sees the old link or the new one and never none.
  const std::string temporary = ".link" + m_socket_file;
  check_errno(::symlinkat(m_socket_file.c_str(), directory, temporary.c_str()));
  if (::renameat(directory, temporary.c_str(), directory, file.c_str()) != 0) {
    const int error = errno;
    ::unlinkat(directory, temporary.c_str(), 0);
    check(-error);
  }
}

void Seat::remove_link(int directory, const std::string& file) const {
  if (is_taken() && link_target(directory, file) == m_socket_file) ::unlinkat(directory, file.c_str(), 0);
}

int Seat::withdraw(const std::string& file) const {
  return as_error_code([&] {
    remove_link(open_runtime_directory().get(), file);
    return 0;
  });
}

void Seat::leave(const std::vector<std::string>& files) {
  as_error_code([&] {
    const UniqueFd directory = open_runtime_directory();
    for (const std::string& file : files) remove_link(directory.get(), file);
    if (is_taken()) ::unlinkat(directory.get(), m_socket_file.c_str(), 0);
    return 0;
  });
  forget_socket();
  give_up_device();
}

bool Seat::is_unchanged() {
  const DirectoryState state = directory_state();
  m_looks = m_intact && state == m_last_state ? m_looks + 1 : 0;
  m_last_state = state;
  // A file system's clock ticks slowly: a change right after the first look may leave the same time, one after the
  // second cannot.
  if (m_looks > 1) return true;
  m_intact = false;
  return false;
}

bool Seat::is_intact(const std::vector<std::string>& files) {
  const UniqueFd directory = open_runtime_directory();
  const auto is_in_place = [&](const std::string& file) { return link_target(directory.get(), file) == m_socket_file; };
  m_intact = (!serves_device() || id_of(m_device_lock.get()) == id_of(directory.get(), kDeviceLock)) &&
             (files.empty() || has_socket_in(directory.get())) && std::all_of(files.begin(), files.end(), is_in_place);
  return m_intact;
}

}  // namespace vesk
