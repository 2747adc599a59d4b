#pragma once

#include <string>

namespace KW {

// Owns one dynamically loaded library for its whole lifetime. All symbols are
// bound at load time and kept local to the library. Failures are thrown as
// SharedLibraryHandleException with a text that names the library.
class SharedLibraryHandle {
  public:
    explicit SharedLibraryHandle(char const* fileName);
    ~SharedLibraryHandle();

    // Closed exactly once: neither copied nor moved.
    SharedLibraryHandle(SharedLibraryHandle const&) = delete;
    SharedLibraryHandle& operator=(SharedLibraryHandle const&) = delete;
    SharedLibraryHandle(SharedLibraryHandle&&) = delete;
    SharedLibraryHandle& operator=(SharedLibraryHandle&&) = delete;

    // A null address counts as "not found", even for a symbol whose value is null.
    void* getSymbolAddress(char const* symbolName);

    [[noreturn]] void throwLastError(char const* context);
    void traceLastError(char const* context);
    // The loader's own explanation wins over `context`; the text ends in "\n".
    void queryLastError(char const* context, std::string& out);

  private:
    std::string name;
    void* handle;
};

}  // namespace KW
