// What the run loop's event loop watches.
#pragma once

#include <systemd/sd-event.h>

#include <memory>

namespace orvel::sim {

struct SourceFree {
  void operator()(sd_event_source* source) const { sd_event_source_disable_unref(source); }
};
using SourcePtr = std::unique_ptr<sd_event_source, SourceFree>;

}  // namespace orvel::sim
