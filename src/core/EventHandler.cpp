#include "core/EventHandler.h"

namespace KW {

EventHandler::~EventHandler() = default;

}  // namespace KW
