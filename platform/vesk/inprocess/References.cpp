#include "vesk/inprocess/References.h"

#include <cstdio>
#include <cstdlib>

namespace vesk::inprocess {
namespace {

int g_runtime;  // its address is the runtime

}  // namespace

Counts g_counts;
std::atomic<bool> g_quiet{false};
std::atomic<bool> g_strict{false};
thread_local int t_depth = 0;

void* runtime_address() {
  return &g_runtime;
}

void require(bool kept, const char* operation, const char* rule) {
  if (kept || !g_strict) return;
  std::fprintf(stderr, "InprocessVesk: %s: %s\n", operation, rule);
  std::abort();
}

void report_throw(const char* what, const std::string& text) {
  if (!g_quiet) std::fprintf(stderr, "InprocessVesk: %s threw: %s\n", what, text.c_str());
}

EndpointRef hold(vesk_endpoint* endpoint) {
  ++g_counts.endpoint_references;
  call_out("endpoint_acquire", [&] { return endpoint->fn->endpoint_acquire(&g_runtime, endpoint); });
  return {endpoint, [](vesk_endpoint* held) {
            call_out("endpoint_release", [&] { return held->fn->endpoint_release(&g_runtime, held); });
            --g_counts.endpoint_references;
          }};
}

bool is_same(const std::weak_ptr<const void>& a, const std::weak_ptr<const void>& b) {
  return !a.owner_before(b) && !b.owner_before(a);
}

DeathLink::DeathLink(vesk_death_callback* linked) : callback(linked) {
  ++g_counts.death_references;
  call_out("death_acquire", [this] { return callback->death_acquire(callback), 0; });
}

DeathLink::~DeathLink() {
  call_out("death_release", [this] { return callback->death_release(callback), 0; });
  --g_counts.death_references;
}

}  // namespace vesk::inprocess
