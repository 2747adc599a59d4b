// Test-only add-on kwemu_control.node: the stand-in library's control
// functions (solEmu_*, docs/emulator.md) for the JavaScript soak and fuzz
// runs. They are looked up in the libsolclient.so that the process has already
// loaded (require kwnode first), so the add-on links nothing of the stand-in
// and a missing function reads as unavailable instead of failing to load.

#include <dlfcn.h>

#include <string>
#include <type_traits>
#include <utility>

#include <nan.h>

namespace {

void* symbol(std::string const& name) {
    static void* handle = dlopen("libsolclient.so", RTLD_NOW | RTLD_NOLOAD);
    return handle == nullptr ? nullptr : dlsym(handle, ("solEmu_" + name).c_str());
}

// One JavaScript argument, passed on as text or as a number.
struct Arg {
    explicit Arg(v8::Local<v8::Value> value)
        : text(*Nan::Utf8String(value)), number(Nan::To<int32_t>(value).FromMaybe(0)) {}
    operator char const*() const { return text.c_str(); }
    operator int() const { return number; }
    std::string text;
    int number;
};

// solEmu_<name>(args...) with name taken from the function's data: its result
// as a number, or undefined for a void one.
template <typename Result, typename... Args, size_t... I>
void call(Nan::NAN_METHOD_ARGS_TYPE info, std::index_sequence<I...>) {
    std::string const name = Arg(info.Data()).text;
    auto fn = reinterpret_cast<Result (*)(Args...)>(symbol(name));
    if (fn == nullptr) {
        Nan::ThrowError(("kwemu_control: no solEmu_" + name +
                         " in a loaded libsolclient.so (require kwnode first)")
                            .c_str());
        return;
    }
    Arg const args[] = {Arg(info[I])...};
    if constexpr (std::is_void<Result>::value) {
        fn(args[I]...);
    } else {
        info.GetReturnValue().Set(Nan::New(static_cast<double>(fn(args[I]...))));
    }
}

template <typename Result, typename... Args>
NAN_METHOD(Call) {
    call<Result, Args...>(info, std::index_sequence_for<Args...>());
}

// count(name): solEmu_<name>() of a counter such as liveMessages or
// liveSessions; undefined when the loaded library has no such counter.
NAN_METHOD(Count) {
    if (auto fn = reinterpret_cast<long (*)()>(symbol(Arg(info[0]).text))) {
        info.GetReturnValue().Set(Nan::New(static_cast<double>(fn())));
    }
}

NAN_MODULE_INIT(InitControl) {
    using Text = char const*;
    struct Method {
        char const* name;
        Nan::FunctionCallback fn;
    };
    Method const methods[] = {{"count", Count},
                              {"failNext", Call<int, Text, int, int, int, Text>},
                              {"setBrokerUp", Call<void, Text, int>},
                              {"setAckMode", Call<void, int>},
                              {"addQueue", Call<int, Text>},
                              {"removeQueue", Call<int, Text>},
                              {"queueDepth", Call<long, Text>}};
    for (Method const& method : methods) {
        v8::Local<v8::String> name = Nan::New(method.name).ToLocalChecked();
        Nan::Set(
            target, name,
            Nan::GetFunction(Nan::New<v8::FunctionTemplate>(method.fn, name)).ToLocalChecked());
    }
}

}  // namespace

NODE_MODULE(kwemu_control, InitControl)
