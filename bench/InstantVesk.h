// A libvesk in which every service runs and every call is answered at once, inside vesk_call, from bytes made
// beforehand: what remains is the cost of the code around it.
#pragma once

#include <vesk/vesk.h>

#include <chrono>
#include <cstddef>
#include <vector>

#include "vesk/message/Parcel.h"

namespace bench {

// Makes every call of that code answer with these bytes behind the word for "no exception".
void answer(unsigned int code, const vesk::Parcel& contents);

// The same with all the bytes of the reply, that word included.
void answerWith(unsigned int code, const void* data, std::size_t size);

// A buffer that reads these bytes; the caller frees it with vesk_buffer_free.
vesk_buffer* bufferOf(const vesk::Parcel& parcel);

// Moves a message back to its start.
void rewind(vesk_buffer* buffer);
void rewind(vesk_payload* payload);

// What was written; valid until the payload changes.
const std::vector<std::byte>& bytesOf(const vesk_payload* payload);

// The endpoints that services got, in the order of the calls; the end of a connection drops them.
const std::vector<vesk_endpoint*>& endpoints();
void dropEndpoints();

// Ends the connection that was bound last and delivers its notice before it returns; a new bind succeeds at once.
void restartService();

// When a service was bound last.
std::chrono::steady_clock::time_point boundAt();

}  // namespace bench
