// How messages cross between two processes: sd-bus, peer to peer, with this interface.
//
//   connecting process --> accepting process         over the connection
//     Open()                                           which service it is for, as the object path of all that follows
//     Call(u code, ay bytes)                           two-way, or one-way where no reply is expected
//     Call(u code, ay bytes, at endpoints)             with endpoint references, in the order of their marks
//     Call(u code, ay bytes, at endpoints, h channel)  the first of these brings the callback channel along
//     TakeBack(at endpoints)                           asks for these back: their call was answered too late for its
//     caller
//   accepting process --> connecting process         over the callback channel
//     Call(t endpoint, u code, ay bytes)               two-way or one-way
//     Release(t endpoint, u count)                     gives back so many of the references that were sent
//
// A call over the connection says which thread makes it, as the sender in its header, ":1.4711", unless that thread has
// made the call before it, too. Nothing depends on it: a process whose libvesk does not know of it is served as well.
//
// Every two-way call is answered by (i status, ay bytes); the bytes count only when the status is 0.
#pragma once

#include <sys/types.h>
#include <systemd/sd-bus.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "Support.h"
#include "vesk/message/Parcel.h"

namespace vesk {

constexpr char kInterface[] = "vesk.Peer";
constexpr char kMemberOpen[] = "Open";
constexpr char kMemberCall[] = "Call";
constexpr char kMemberRelease[] = "Release";
constexpr char kMemberTakeBack[] = "TakeBack";
constexpr char kCallbackPath[] = "/";

struct BusDelete {
  void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
};
using BusPtr = std::unique_ptr<sd_bus, BusDelete>;

struct MessageDelete {
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using MessagePtr = std::unique_ptr<sd_bus_message, MessageDelete>;

struct SlotDelete {
  void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
};
using SlotPtr = std::unique_ptr<sd_bus_slot, SlotDelete>;

// Which half of the authentication a process takes: the connecting half is written at once and does not wait.
enum class HandshakeRole { kConnecting, kAccepting };

// A started connection over `socket`, on no event loop. `handler` gets every message that is not a reply.
BusPtr start_bus(UniqueFd socket, HandshakeRole role, sd_bus_message_handler_t handler, void* userdata);

// The object path that stands for a service name.
std::string object_path(const char* name);

MessagePtr new_call(sd_bus* bus, const char* path, const char* member, bool expect_reply);
void append_bytes(sd_bus_message* message, const Parcel& parcel);
void append_numbers(sd_bus_message* message, const std::vector<std::uint64_t>& numbers);

// As the kernel numbers it.
pid_t this_thread();

// Says which thread makes the call, and asks which has made it; 0 where that does not say.
void append_thread(sd_bus_message* message, pid_t thread);
pid_t thread_of(sd_bus_message* message);

// Reads the next `ay` into `parcel`. False for anything but an array of at most kMaxMessageBytes.
bool read_bytes(sd_bus_message* message, Parcel* parcel);

// Reads an answer (i status, ay bytes). False for any other message; sd-bus's errors are no part of this protocol.
bool read_answer(sd_bus_message* message, int* status, Parcel* parcel);

// Whether the message is a call of `member` with this signature, or with any where it is null.
bool is_call(sd_bus_message* message, const char* member, const char* signature);
bool expects_reply(sd_bus_message* message);

// Keeps count of what a slow reader has made sd-bus queue, so that it costs a bounded amount of memory. The thread that
// owns the bus calls.
class Outbox {
 public:
  // Sends, or gives -ENOBUFS when the queue would exceed its bounds.
  int send(sd_bus* bus, sd_bus_message* message, std::size_t bytes);

  // Whether `bytes` more may be queued.
  bool admits(sd_bus* bus, std::size_t bytes);

  // Accounts for a message that was sent by other means.
  void sent(std::size_t bytes);

 private:
  void forget_written(sd_bus* bus);

  std::deque<std::size_t> m_sizes;  // of the messages sent last; the newest ones may still be queued
  std::size_t m_bytes = 0;          // their sum
};

}  // namespace vesk
