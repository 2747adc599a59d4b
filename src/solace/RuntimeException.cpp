#include "solace/RuntimeException.h"

namespace KW {
namespace Solace {

RuntimeException::RuntimeException(char const* const& text) : Exception(text) {}

RuntimeException::RuntimeException(std::string const& text) : Exception(text) {}

RuntimeException::~RuntimeException() = default;

}  // namespace Solace
}  // namespace KW
