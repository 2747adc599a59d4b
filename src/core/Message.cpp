#include "core/Message.h"

namespace KW {

Message::~Message() = default;

}  // namespace KW
