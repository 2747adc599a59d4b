#include "core/Exception.h"

namespace KW {

Exception::Exception(std::string const& message) : message(message), errorCode(0) {}

Exception::~Exception() = default;

char const* Exception::what() const noexcept {
    return message.c_str();
}

int Exception::code() const {
    return errorCode;
}

}  // namespace KW
