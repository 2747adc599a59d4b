#include "core/Client.h"

namespace KW {

Client::~Client() = default;

}  // namespace KW
