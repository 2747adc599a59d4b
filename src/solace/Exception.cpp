#include "solace/Exception.h"

namespace KW {
namespace Solace {

Exception::Exception(char const* const& text) : KW::Exception(text ? text : "") {}

Exception::Exception(std::string const& text) : KW::Exception(text) {}

Exception::~Exception() = default;

}  // namespace Solace
}  // namespace KW
