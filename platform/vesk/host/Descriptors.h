// The descriptors of this library that a forked child must not keep: with a copy of a socket or a lock the parent would
// live on for all other processes.
#pragma once

namespace vesk {

// Any thread. A socket need not be forgotten when it is closed, be it by sd-bus: the child compares what is behind the
// number, and no two sockets are the same file. Other files may be, one after the other.
void remember_descriptor(int fd);
void forget_descriptor(int fd);

// In a forked child: closes what is remembered. Async-signal-safe.
void close_remembered_descriptors() noexcept;

}  // namespace vesk
