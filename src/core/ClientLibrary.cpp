#include "core/ClientLibrary.h"

namespace KW {

ClientLibrary::~ClientLibrary() = default;

}  // namespace KW
