// Reads what all records on the wire have in common: marks that say whether something is there, then the members.
#pragma once

#include <string>
#include <type_traits>
#include <vector>

#include "parcel/Int32.h"
#include "parcel/Int64.h"
#include "parcel/String.h"
#include "parcel/StringArray.h"

namespace orvel::service_apis {

// Reads the mark in front of a record. True when the record is there; false for a null buffer.
inline bool record_follows(vesk_buffer* buffer) {
  return Int32::read(buffer) > 0;
}

// The same for a record with two marks, of its place and of its own; an empty place has no second mark.
inline bool marked_record_follows(vesk_buffer* buffer) {
  const bool place_taken = record_follows(buffer);
  return place_taken && record_follows(buffer);
}

// A member with a mark in front of it, which stays as it is when the mark says that it is absent.
template <typename Member>
struct Optional {
  Member& member;
};

template <typename Member>
Optional<Member> optional(Member& member) {
  return {member};
}

inline void read_member(vesk_buffer* buffer, int& value) {
  value = Int32::read(buffer);
}

inline void read_member(vesk_buffer* buffer, bool& value) {
  value = Int32::read(buffer) != 0;
}

inline void read_member(vesk_buffer* buffer, long long& value) {
  if (!Int64::read(buffer, &value)) value = 0;
}

inline void read_member(vesk_buffer* buffer, std::string& value) {
  value = String::read(buffer);
}

inline void read_member(vesk_buffer* buffer, std::vector<std::string>& values) {
  values = StringArray::read(buffer);
}

// A record within the record, which may be absent.
template <typename Record>
void read_member(vesk_buffer* buffer, Record& record) {
  if constexpr (std::is_invocable_v<decltype(Record::read), vesk_buffer*>) {
    record = Record::read(buffer);
  } else {
    Record::read(buffer, record);
  }
}

template <typename Member>
void read_member(vesk_buffer* buffer, Optional<Member> optional) {
  if (record_follows(buffer)) read_member(buffer, optional.member);
}

// Reads the members in the order given, which is that of the wire. Those behind the end of the buffer become empty or
// 0.
template <typename... Members>
void read_members(vesk_buffer* buffer, Members&&... members) {
  (read_member(buffer, members), ...);
}

}  // namespace orvel::service_apis
