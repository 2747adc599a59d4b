#pragma once

#include <string>

#include "core/Exception.h"

namespace KW {

// Failure to load a shared library or to resolve one of its symbols; the
// code is always 0.
class SharedLibraryHandleException : public Exception {
  public:
    explicit SharedLibraryHandleException(std::string const& message);
    ~SharedLibraryHandleException() override;
};

}  // namespace KW
