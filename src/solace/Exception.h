#pragma once

#include "core/Exception.h"

namespace KW {
namespace Solace {

// Base of everything the adapter throws; its code is always 0.
class Exception : public KW::Exception {
  public:
    explicit Exception(char const* const& text);
    ~Exception() override;

  protected:
    explicit Exception(std::string const& text);
};

}  // namespace Solace
}  // namespace KW
