#pragma once

namespace KW {

// Scheduling of the threads that sleep until work arrives and then run
// briefly (a worker pool on the delivery path). Linux's fair scheduler (6.12
// and later) lets a thread ask for a short time slice; such a thread, once
// woken, preempts a busy thread on its CPU (the JavaScript thread in a tight
// loop, say) instead of queueing behind it for the rest of that thread's
// slice. Only the timing changes.
class ThreadSlice {
  public:
    // Asks for the shortest slice for the calling thread, keeping its policy
    // and nice value; leaves a thread under any other policy alone. Returns
    // whether the kernel took the request. Kernels before 6.12 take it and
    // change nothing; elsewhere it does nothing.
    static bool requestShort() noexcept;
};

}  // namespace KW
