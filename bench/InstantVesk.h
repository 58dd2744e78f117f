// A libvesk in which every service runs and every call is answered at once, inside vesk_call, from bytes made
// beforehand: what remains is the cost of the code around it.
#pragma once

#include <vesk/vesk.h>

#include "Parcel.h"

namespace bench {

// What the device-name query of the delegate service answers. Longer than a string keeps without an allocation.
constexpr const char* kDeviceName = "Robin's kitchen display";

// A buffer that reads these bytes; the caller frees it with vesk_buffer_free.
vesk_buffer* bufferOf(const vesk::Parcel& parcel);

// Moves a buffer back to its start.
void rewind(vesk_buffer* buffer);

}  // namespace bench
