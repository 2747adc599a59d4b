#include "KWClient/KWNodeClientModule.h"

#include <node.h>

#include "KWClient/KWNodeClient.h"
#include "KWClient/KWNodeEvent.h"
#include "KWClient/KWNodeMessage.h"

// The library starts last: an error it leaves pending must not meet further
// V8 calls, which newer V8 would let swallow it.
void InitAll(v8::Local<v8::Object> exports) {
    KWNodeClient::Init(exports);
    KWNodeEvent::Init(exports);
    KWNodeMessage::Init(exports);
    KWNodeClient::startLibrary();
}

namespace {
#if NODE_MODULE_VERSION >= 72
// Worker threads load the module once per environment: a context-aware
// register function may run in each, where an exports-only one is refused.
void InitEnvironment(v8::Local<v8::Object> exports, v8::Local<v8::Value>, v8::Local<v8::Context>,
                     void*) {
    InitAll(exports);
}
node::addon_register_func const REGISTER_EXPORTS = nullptr;
node::addon_context_register_func const REGISTER_CONTEXT = InitEnvironment;
#else
// node's register-function signature; the module object and private data are
// not used.
void InitExports(v8::Local<v8::Object> exports, v8::Local<v8::Value>, void*) {
    InitAll(exports);
}
node::addon_register_func const REGISTER_EXPORTS = InitExports;
node::addon_context_register_func const REGISTER_CONTEXT = nullptr;
#endif

node::node_module kwModule = {
    NODE_MODULE_VERSION,                // ABI of the headers built against
    0,                                  // flags
    nullptr,                            // DSO handle
    "src/KWClient/KWNodeClientModule",  // file name
    REGISTER_EXPORTS,                   // register function (exports only)
    REGISTER_CONTEXT,                   // context-aware register function
    "kwnode",                           // module name
    nullptr,                            // private data
    nullptr                             // link
};

// Hands the record to node while the shared object is being loaded, before
// any script can look for it.
struct ModuleRegistration {
    ModuleRegistration() { node_module_register(&kwModule); }
} const REGISTRATION;
}  // namespace
