#include "core/Reference.h"

namespace KW {

Reference::~Reference() = default;

std::shared_ptr<Reference> const Reference::NONE;

}  // namespace KW
