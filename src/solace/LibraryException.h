#pragma once

#include "solace/Exception.h"
#include "solclient/SolClientABI.h"

namespace KW {
namespace Solace {

// A failed vendor call: the library's error text (or the fallback) with the
// sub-code and the broker's response code kept apart from code(), which
// stays 0.
class LibraryException : public Exception {
  public:
    // The fallback text of every failed vendor call.
    static constexpr char const* DEFAULT_TEXT = "solace library exception";

    LibraryException(solClient_errorInfo* info, char const* fallback);
    ~LibraryException() override;

    int getSubCode() const { return subCode; }
    int getResponseCode() const { return responseCode; }

    // The text the adapter takes from an error record. The record's last text
    // byte is set to the character '0' first, as the library's own readers
    // did; a text starting with '0' selects the fallback. A null record gives
    // the fallback too.
    static std::string readErrorText(solClient_errorInfo* info, char const* fallback);
    // The record's text as is, after that same '0'; info must not be null.
    static std::string readRecordText(solClient_errorInfo* info);

  private:
    int subCode;
    int responseCode;
};

}  // namespace Solace
}  // namespace KW
