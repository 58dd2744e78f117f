// The metadata of an application.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>

#include "vesk/vesk.h"

namespace orvel::service_apis {

// Like Bundle, without long integers, and with the same wire format in both directions.
class OrvelBundle {
 public:
  // True except for a null buffer. Reads at most 30 entries, even when more are announced; an unknown type ends them.
  static bool read(vesk_buffer* buffer, OrvelBundle& bundle);

  // True when everything was written.
  bool write(vesk_payload* payload) const;

  // As in Bundle.
  int get(const std::string& key, int defaultValue) const;
  std::string get(const std::string& key, std::string defaultValue) const;
  bool put(const std::string& key, int value);
  bool put(const std::string& key, std::string value);

  std::size_t size() const;

 private:
  std::unordered_map<std::string, std::int32_t> m_integers;
  std::unordered_map<std::string, std::string> m_strings;
};

}  // namespace orvel::service_apis
