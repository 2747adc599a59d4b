#include "KWClient/KWNodeClientModule.h"

#include <node.h>

#include "KWClient/KWNodeClient.h"
#include "KWClient/KWNodeEvent.h"
#include "KWClient/KWNodeMessage.h"

void InitAll(v8::Local<v8::Object> exports) {
    KWNodeClient::Init(exports);
    KWNodeEvent::Init(exports);
    KWNodeMessage::Init(exports);
}

// node's register-function signature; the module object and private data are
// not used.
void InitAll(v8::Local<v8::Object> exports, v8::Local<v8::Value>, void*) {
    InitAll(exports);
}

namespace {

node::node_module kwModule = {
    NODE_MODULE_VERSION,                // ABI of the headers built against
    0,                                  // flags
    nullptr,                            // DSO handle
    "src/KWClient/KWNodeClientModule",  // file name
    InitAll,                            // register function (exports only)
    nullptr,                            // no context-aware register function
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
