#include "core/Exception.h"

namespace KW {

Exception::Exception(std::string const& message) : message_(message), code_(0) {}

Exception::~Exception() = default;

char const* Exception::what() const noexcept {
    return message_.c_str();
}

int Exception::code() const {
    return code_;
}

}  // namespace KW
