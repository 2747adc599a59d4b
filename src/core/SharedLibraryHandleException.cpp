#include "core/SharedLibraryHandleException.h"

namespace KW {

SharedLibraryHandleException::SharedLibraryHandleException(std::string const& message)
    : Exception(message) {}

SharedLibraryHandleException::~SharedLibraryHandleException() = default;

}  // namespace KW
