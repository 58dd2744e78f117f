#include "orvel/Bundle.h"

#include <set>
#include <utility>

#include "parcel/BundleEntries.h"
#include "parcel/Int32.h"
#include "parcel/Measured.h"

namespace orvel::service_apis {

int Bundle::get(const std::string& key, int defaultValue) const {
  return value_or(m_integers, key, defaultValue);
}

long long Bundle::get(const std::string& key, long long defaultValue) const {
  return value_or<std::int64_t>(m_longs, key, defaultValue);
}

std::string Bundle::get(const std::string& key, std::string defaultValue) const {
  return value_or(m_strings, key, std::move(defaultValue));
}

bool Bundle::put(const std::string& key, int value) {
  return m_integers.emplace(key, value).second;
}

bool Bundle::put(const std::string& key, long long value) {
  return m_longs.emplace(key, value).second;
}

bool Bundle::put(const std::string& key, std::string value) {
  return m_strings.emplace(key, std::move(value)).second;
}

std::size_t Bundle::size() const {
  return m_integers.size() + m_strings.size();
}

bool Bundle::contains(const std::string& key) const {
  return m_integers.count(key) + m_longs.count(key) + m_strings.count(key) > 0;
}

std::vector<std::string> Bundle::keys() const {
  std::set<std::string> keys;
  for (const auto& entry : m_integers) keys.insert(entry.first);
  for (const auto& entry : m_longs) keys.insert(entry.first);
  for (const auto& entry : m_strings) keys.insert(entry.first);
  return {keys.begin(), keys.end()};
}

Bundle Bundle::read(vesk_buffer* buffer) {
  Bundle bundle;
  read_entries(buffer, Int32::read(buffer), bundle.m_integers, &bundle.m_longs, bundle.m_strings);
  return bundle;
}

bool Bundle::write(vesk_payload* payload) const {
  return write_measured(payload, [this](vesk_payload* into, int length) { return write(into, length); });
}

int Bundle::write(vesk_payload* payload, int length) const {
  Int32::write(payload, length);
  const unsigned int start = vesk_payload_get_position(payload);  // The length does not count itself.
  Int32::write(payload, static_cast<int>(m_integers.size() + m_longs.size() + m_strings.size()));
  write_entries(payload, m_integers);
  write_entries(payload, m_longs);
  write_entries(payload, m_strings);
  return written_since(payload, start);
}

}  // namespace orvel::service_apis
