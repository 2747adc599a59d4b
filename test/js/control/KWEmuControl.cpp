// Test-only add-on kwemu_control.node: the stand-in library's control
// functions (solEmu_*, docs/emulator.md) for the JavaScript soak and fuzz
// runs. They are looked up in the libsolclient.so that the process has already
// loaded (require kwnode first), so the add-on links nothing of the stand-in
// and a missing function reads as unavailable instead of failing to load.

#include <dlfcn.h>

#include <string>
#include <type_traits>

#include <nan.h>

namespace {

void* library() {
    static void* handle = dlopen("libsolclient.so", RTLD_NOW | RTLD_NOLOAD);
    return handle;
}

template <typename Fn>
Fn lookup(std::string const& name) {
    void* lib = library();
    if (lib == nullptr) {
        Nan::ThrowError("kwemu_control: libsolclient.so is not loaded; require kwnode first");
        return nullptr;
    }
    auto fn = reinterpret_cast<Fn>(dlsym(lib, ("solEmu_" + name).c_str()));
    if (fn == nullptr) {
        Nan::ThrowError(("kwemu_control: the loaded library has no solEmu_" + name).c_str());
    }
    return fn;
}

std::string text(v8::Local<v8::Value> value) {
    return *Nan::Utf8String(value);
}

int number(v8::Local<v8::Value> value) {
    return Nan::To<int32_t>(value).FromMaybe(0);
}

// count(name): solEmu_<name>() of a counter such as liveMessages or
// liveSessions; undefined when the loaded library has no such counter.
NAN_METHOD(Count) {
    void* lib = library();
    auto fn = lib == nullptr
                  ? nullptr
                  : reinterpret_cast<long (*)()>(dlsym(lib, ("solEmu_" + text(info[0])).c_str()));
    if (fn != nullptr) {
        info.GetReturnValue().Set(Nan::New(static_cast<double>(fn())));
    }
}

NAN_METHOD(FailNext) {
    if (auto fn = lookup<int (*)(char const*, int, int, int, char const*)>("failNext")) {
        info.GetReturnValue().Set(fn(text(info[0]).c_str(), number(info[1]), number(info[2]),
                                     number(info[3]), text(info[4]).c_str()));
    }
}

NAN_METHOD(SetBrokerUp) {
    if (auto fn = lookup<void (*)(char const*, int)>("setBrokerUp")) {
        fn(text(info[0]).c_str(), number(info[1]));
    }
}

// solEmu_<name>(arg): its result as a number, or undefined for a void one.
template <typename Result, typename Arg>
void callWith(Nan::NAN_METHOD_ARGS_TYPE info, char const* name, Arg arg) {
    if (auto fn = lookup<Result (*)(Arg)>(name)) {
        if constexpr (std::is_void<Result>::value) {
            fn(arg);
        } else {
            info.GetReturnValue().Set(Nan::New(static_cast<double>(fn(arg))));
        }
    }
}

NAN_METHOD(SetAckMode) {
    callWith<void>(info, "setAckMode", number(info[0]));
}
NAN_METHOD(AddQueue) {
    callWith<int>(info, "addQueue", text(info[0]).c_str());
}
NAN_METHOD(RemoveQueue) {
    callWith<int>(info, "removeQueue", text(info[0]).c_str());
}
NAN_METHOD(QueueDepth) {
    callWith<long>(info, "queueDepth", text(info[0]).c_str());
}

NAN_MODULE_INIT(InitControl) {
    struct Method {
        char const* name;
        Nan::FunctionCallback fn;
    };
    Method const methods[] = {
        {"count", Count},           {"failNext", FailNext}, {"setBrokerUp", SetBrokerUp},
        {"setAckMode", SetAckMode}, {"addQueue", AddQueue}, {"removeQueue", RemoveQueue},
        {"queueDepth", QueueDepth}};
    for (Method const& method : methods) {
        Nan::SetMethod(target, method.name, method.fn);
    }
}

}  // namespace

NODE_MODULE(kwemu_control, InitControl)
