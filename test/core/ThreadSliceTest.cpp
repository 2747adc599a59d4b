#include <gtest/gtest.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>
#include <thread>

#include "core/ThreadSlice.h"

namespace {

struct Attr {
    std::uint32_t size, policy;
    std::uint64_t flags;
    std::int32_t nice;
    std::uint32_t priority;
    std::uint64_t runtime, deadline, period;
};

Attr current() {
    Attr attr{};
    EXPECT_EQ(0, syscall(SYS_sched_getattr, 0, &attr, sizeof attr, 0));
    return attr;
}

// A thread's own nice value and policy are the script's or the operator's
// choice: asking for a short slice keeps both, and a thread under another
// policy than the normal one is left alone. Runs in threads of its own so that
// the test process keeps its settings.
TEST(ThreadSlice, KeepsNiceValueAndLeavesOtherPoliciesAlone) {
    std::thread([] {
        ASSERT_EQ(0, setpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)), 5));
        bool const taken = KW::ThreadSlice::requestShort();
        Attr const after = current();
        EXPECT_EQ(5, after.nice);
        EXPECT_EQ(static_cast<std::uint32_t>(SCHED_OTHER), after.policy);
        // Kernels that know slices report the one asked for; older ones ignore it.
        if (taken && after.runtime != 0) {
            EXPECT_EQ(100000u, after.runtime);
        }
    }).join();
    std::thread([] {
        sched_param param{};
        ASSERT_EQ(0, sched_setscheduler(0, SCHED_BATCH, &param));
        EXPECT_FALSE(KW::ThreadSlice::requestShort());
        EXPECT_EQ(static_cast<std::uint32_t>(SCHED_BATCH), current().policy);
    }).join();
}

}  // namespace
