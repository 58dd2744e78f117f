#include "parcel/OrvelBundle.h"

#include <algorithm>
#include <utility>

#include "parcel/BundleEntries.h"
#include "parcel/Int32.h"
#include "parcel/Measured.h"

namespace orvel::service_apis {
namespace {

// Deliberately, later entries stay unread.
constexpr int kMaxEntriesRead = 30;

}  // namespace

bool OrvelBundle::read(vesk_buffer* buffer, OrvelBundle& bundle) {
  bundle = {};
  if (!buffer) return false;
  Int32::read(buffer);  // the length, which is not used
  read_entries(buffer, std::min(Int32::read(buffer), kMaxEntriesRead), bundle.m_integers, /*longs=*/nullptr,
               bundle.m_strings);
  return true;
}

bool OrvelBundle::write(vesk_payload* payload) const {
  return write_measured(payload, [this](vesk_payload* into, int length) {
    Int32::write(into, length);
    const unsigned int start = vesk_payload_get_position(into);  // The length does not count itself.
    Int32::write(into, static_cast<int>(size()));
    write_entries(into, m_integers);
    write_entries(into, m_strings);
    return written_since(into, start);
  });
}

int OrvelBundle::get(const std::string& key, int defaultValue) const {
  return value_or(m_integers, key, defaultValue);
}

std::string OrvelBundle::get(const std::string& key, std::string defaultValue) const {
  return value_or(m_strings, key, std::move(defaultValue));
}

bool OrvelBundle::put(const std::string& key, int value) {
  return m_integers.emplace(key, value).second;
}

bool OrvelBundle::put(const std::string& key, std::string value) {
  return m_strings.emplace(key, std::move(value)).second;
}

std::size_t OrvelBundle::size() const {
  return m_integers.size() + m_strings.size();
}

}  // namespace orvel::service_apis
