#include "solace/LibraryException.h"

#include <cstring>

namespace KW {
namespace Solace {

std::string LibraryException::readRecordText(solClient_errorInfo* info) {
    info->errorStr[SOLCLIENT_ERRORINFO_STR_SIZE - 1] = '0';
    // Bounded: after the '0' above the text may have no terminator left.
    return std::string(info->errorStr, strnlen(info->errorStr, SOLCLIENT_ERRORINFO_STR_SIZE));
}

std::string LibraryException::readErrorText(solClient_errorInfo* info, char const* fallback) {
    if (info != nullptr) {
        std::string text = readRecordText(info);
        if (text.empty() || text[0] != '0') {
            return text;
        }
    }
    return fallback ? fallback : "";
}

LibraryException::LibraryException(solClient_errorInfo* info, char const* fallback)
    : Exception(readErrorText(info, fallback)),
      subCode(info ? static_cast<int>(info->subCode) : 0),
      responseCode(info ? static_cast<int>(info->responseCode) : 0) {}

LibraryException::~LibraryException() = default;

}  // namespace Solace
}  // namespace KW
