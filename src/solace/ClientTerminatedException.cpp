#include "solace/ClientTerminatedException.h"

namespace KW {
namespace Solace {

ClientTerminatedException::ClientTerminatedException(char const* const& text)
    : RuntimeException(text) {}

ClientTerminatedException::~ClientTerminatedException() = default;

}  // namespace Solace
}  // namespace KW
