#include "core/DroppedFailures.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <mutex>

namespace KW {

namespace {

struct State {
    std::mutex mutex;
    std::map<std::string, unsigned long> counts;
    bool trace = false;
};

void printReportAtExit() {
    std::string const text = DroppedFailures::report();
    std::fprintf(stderr, "kwnode: dropped failures at exit:%s\n%s", text.empty() ? " none" : "",
                 text.c_str());
}

// Made on first use and never destroyed: records may come from threads that
// outlive static destruction.
State& state() {
    static State* const instance = [] {
        auto* made = new State();
        // Read once; nothing in the process sets it meanwhile.
        char const* flag = std::getenv("KWNODE_TRACE_DROPPED");  // NOLINT(concurrency-mt-unsafe)
        made->trace = flag != nullptr && *flag != '\0' && std::strcmp(flag, "0") != 0;
        if (made->trace) {
            std::atexit(&printReportAtExit);
        }
        return made;
    }();
    return *instance;
}

}  // namespace

void DroppedFailures::record(char const* site, char const* detail) noexcept {
    State& s = state();
    char const* where = site != nullptr ? site : "unnamed site";
    try {
        {
            std::lock_guard<std::mutex> lock(s.mutex);
            ++s.counts[where];
        }
        if (s.trace) {
            std::string what = detail != nullptr ? detail : "";
            // Loader texts end in a line feed of their own.
            while (!what.empty() && what.back() == '\n') {
                what.pop_back();
            }
            std::fprintf(stderr, "kwnode: dropped failure at %s: %s\n", where, what.c_str());
        }
    } catch (...) {  // NOLINT(bugprone-empty-catch): out of memory; the counter has no one to tell
    }
}

void DroppedFailures::recordCurrent(char const* site) noexcept {
    std::exception_ptr current = std::current_exception();
    if (!current) {
        record(site, "no exception");
        return;
    }
    try {
        std::rethrow_exception(current);
    } catch (std::exception const& e) {
        record(site, e.what());
    } catch (...) {
        record(site, "an exception of unknown type");
    }
}

unsigned long DroppedFailures::count(std::string const& site) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    auto it = s.counts.find(site);
    return it == s.counts.end() ? 0 : it->second;
}

std::map<std::string, unsigned long> DroppedFailures::counts() {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.counts;
}

std::string DroppedFailures::report() {
    std::string text;
    for (auto const& entry : counts()) {
        text += entry.first + ": " + std::to_string(entry.second) + "\n";
    }
    return text;
}

bool DroppedFailures::tracing() {
    return state().trace;
}

}  // namespace KW
