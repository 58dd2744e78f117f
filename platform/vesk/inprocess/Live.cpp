#include "vesk/inprocess/Live.h"

#include <ostream>
#include <tuple>

namespace vesk::inprocess {

std::ostream& operator<<(std::ostream& out, const Live& live) {
  return out << live.payloads << " payloads, " << live.buffers << " buffers, " << live.lookups << " lookups, "
             << live.handle_references << " handle references, " << live.endpoint_references << " endpoint references, "
             << live.death_references << " death references";
}

bool operator==(const Live& a, const Live& b) {
  const auto counts = [](const Live& live) {
    return std::tie(live.payloads, live.buffers, live.lookups, live.handle_references, live.endpoint_references,
                    live.death_references);
  };
  return counts(a) == counts(b);
}

}  // namespace vesk::inprocess
