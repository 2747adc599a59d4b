#include "ErrorInfo.h"

#include <algorithm>
#include <cstring>

namespace SolEmu {

solClient_errorInfo_t* ErrorInfo::current() {
    thread_local solClient_errorInfo_t record{};
    return &record;
}

void ErrorInfo::set(int subCode, unsigned responseCode, std::string_view text) {
    solClient_errorInfo_t* info = current();
    info->subCode = static_cast<solClient_subCode_t>(subCode);
    info->responseCode = responseCode;
    const size_t n = std::min(text.size(), sizeof(info->errorStr) - 1);
    std::memcpy(info->errorStr, text.data(), n);
    info->errorStr[n] = '\0';
}

void ErrorInfo::clear() {
    solClient_errorInfo_t* info = current();
    info->subCode = SOLCLIENT_SUBCODE_OK;
    info->responseCode = 0;
    info->errorStr[0] = '\0';
}

solClient_returnCode_t ErrorInfo::fail(int subCode, std::string_view text,
                                       solClient_returnCode_t rc) {
    set(subCode, 0, text);
    return rc;
}

}  // namespace SolEmu
