#pragma once

#include "solace/Exception.h"

namespace KW {
namespace Solace {

// A failure of the adapter itself (bad connection data, refused shutdown).
class RuntimeException : public Exception {
  public:
    explicit RuntimeException(char const* const& text);
    explicit RuntimeException(std::string const& text);
    ~RuntimeException() override;
};

}  // namespace Solace
}  // namespace KW
