#include "core/Configuration.h"

namespace KW {

Configuration::~Configuration() = default;

}  // namespace KW
