#pragma once

#include <map>
#include <string>

namespace KW {

// The one path for failures that the design swallows: an exception that
// nobody may receive (one thrown by a handler into a vendor callback or out
// of a worker's task) or a failed call whose failure has nowhere to go. Each
// is counted per site. With KWNODE_TRACE_DROPPED=1 in the environment each
// is also written to standard error as it happens, and the counts once more
// when the process exits; off by default, so nothing a script sees changes.
class DroppedFailures {
  public:
    // `site` names the place (a fixed text); `detail` says what was dropped.
    static void record(char const* site, char const* detail) noexcept;
    // Records the exception being handled; called from inside a catch block.
    static void recordCurrent(char const* site) noexcept;

    static unsigned long count(std::string const& site);
    static std::map<std::string, unsigned long> counts();
    // One "site: count" line per site, in site order.
    static std::string report();
    static bool tracing();
};

}  // namespace KW
