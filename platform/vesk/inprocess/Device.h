// A device in the same process as its client.
#pragma once

#include <cstdint>
#include <string>

#include "vesk/vesk.h"

namespace vesk::inprocess {

// Serves the client of this process, in place of scripts; InprocessVesk::attach() makes it known. Its address, as a
// void*, is its own runtime: what it asks of vesk.h with that comes to the first group of methods. The second group
// hears what happens, in order and on any thread, under the runtime's lock: those methods may not use the runtime.
class Device {
 public:
  virtual ~Device() = default;

  virtual int serve(const char* name, vesk_endpoint* endpoint) = 0;               // vesk_service_register
  virtual int find(const char* name, vesk_handle* out) = 0;                       // vesk_binder_servicemanager_get
  virtual int forget(const vesk_handle& handle) = 0;                              // vesk_service_unbind
  virtual int watch(const vesk_handle& handle, vesk_death_callback* notice) = 0;  // link; null: unlink

  virtual void loop_has_work(bool has) = 0;  // whether there is something for the client's run loop to do
  virtual void step_begins() = 0;            // on the run loop
  virtual void looked_up(const std::string& service, bool found) = 0;
  virtual void closed(std::uint32_t connection) = 0;  // by the client, or after the service's death
  virtual void shut_down() = 0;
};

}  // namespace vesk::inprocess
