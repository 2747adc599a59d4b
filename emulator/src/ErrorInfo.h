#pragma once

#include <string_view>

#include "solclient/SolClientABI.h"

namespace SolEmu {

// The per-thread last-error record that solClient_getLastErrorInfo hands out.
class ErrorInfo {
  public:
    // The calling thread's record; never null.
    static solClient_errorInfo_t* current();

    // Fill the calling thread's record. A view, so that the texts of calls
    // that fail on every message (no id on a direct message) cost no allocation.
    static void set(int subCode, unsigned responseCode, std::string_view text);

    // Empty the calling thread's record, as every call does on entry: the vendor's record is
    // valid only until the thread's next call, so one read after that must not find it.
    static void clear();
    // Fill the record and return `rc`: the usual tail of a failing call.
    static solClient_returnCode_t fail(int subCode, std::string_view text,
                                       solClient_returnCode_t rc = SOLCLIENT_FAIL);
};

}  // namespace SolEmu
