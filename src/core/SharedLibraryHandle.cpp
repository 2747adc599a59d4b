#include "core/SharedLibraryHandle.h"

#include <dlfcn.h>

#include "core/DroppedFailures.h"
#include "core/SharedLibraryHandleException.h"

namespace KW {

SharedLibraryHandle::SharedLibraryHandle(char const* fileName)
    : name(fileName != nullptr ? fileName : ""), handle(nullptr) {
    handle = dlopen(fileName, RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        throwLastError("load error");
    }
}

SharedLibraryHandle::~SharedLibraryHandle() {
    // Unload failures are not reported to the caller (nothing useful can be
    // done here), only counted and, on request, traced.
    if (dlclose(handle) != 0) {
        traceLastError("unload error");
    }
}

void* SharedLibraryHandle::getSymbolAddress(char const* symbolName) {
    // Drops any stale error so that the one reported is ours. The loader's
    // error state is per thread, whatever the check says of dlerror.
    dlerror();  // NOLINT(concurrency-mt-unsafe)
    if (symbolName == nullptr || *symbolName == '\0') {
        throw SharedLibraryHandleException("symbol name invalid");
    }
    void* address = dlsym(handle, symbolName);
    if (address == nullptr) {
        throwLastError("symbol not found");
    }
    return address;
}

void SharedLibraryHandle::throwLastError(char const* context) {
    std::string text;
    queryLastError(context, text);
    throw SharedLibraryHandleException(text);
}

void SharedLibraryHandle::traceLastError(char const* context) {
    std::string text;
    queryLastError(context, text);
    DroppedFailures::record("SharedLibraryHandle::traceLastError", text.c_str());
}

void SharedLibraryHandle::queryLastError(char const* context, std::string& out) {
    char const* loaderText = dlerror();  // NOLINT(concurrency-mt-unsafe): per thread
    out = name;
    out += ": ";
    out += loaderText != nullptr ? loaderText : (context != nullptr ? context : "");
    out += "\n";
}

}  // namespace KW
