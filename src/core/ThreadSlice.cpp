#include "core/ThreadSlice.h"

#if defined(__linux__)
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>
#endif

namespace KW {

#if defined(__linux__) && defined(SYS_sched_setattr) && defined(SYS_sched_getattr)

namespace {

// The kernel's struct sched_attr, first version (48 bytes); glibc has no
// wrapper for these calls.
struct SchedAttr {
    std::uint32_t size;
    std::uint32_t policy;
    std::uint64_t flags;
    std::int32_t nice;
    std::uint32_t priority;
    std::uint64_t runtime;  // for a fair-policy thread: the slice asked for, in ns
    std::uint64_t deadline;
    std::uint64_t period;
};

// The kernel's lower bound for a requested slice.
constexpr std::uint64_t SHORT_SLICE_NS = 100000;

}  // namespace

bool ThreadSlice::requestShort() noexcept {
    SchedAttr attr{};
    if (syscall(SYS_sched_getattr, 0, &attr, sizeof attr, 0) != 0 || attr.policy != SCHED_OTHER) {
        return false;
    }
    attr.size = sizeof attr;
    attr.flags = 0;
    attr.runtime = SHORT_SLICE_NS;
    return syscall(SYS_sched_setattr, 0, &attr, 0) == 0;
}

#else

bool ThreadSlice::requestShort() noexcept {
    return false;
}

#endif

}  // namespace KW
