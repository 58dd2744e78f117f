// What messages are inside a process, for the device that serves there.
#pragma once

#include "vesk/message/Message.h"
#include "vesk/vesk.h"

// There is one process, so there is nothing to say about the sender.
struct vesk_identity {};
