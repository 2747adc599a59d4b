#include "core/MessageHandler.h"

namespace KW {

MessageHandler::~MessageHandler() = default;

}  // namespace KW
