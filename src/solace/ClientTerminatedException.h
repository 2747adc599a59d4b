#pragma once

#include "solace/RuntimeException.h"

namespace KW {
namespace Solace {

// The client of a session was asked for after it had been released.
class ClientTerminatedException : public RuntimeException {
  public:
    explicit ClientTerminatedException(char const* const& text);
    ~ClientTerminatedException() override;
};

}  // namespace Solace
}  // namespace KW
