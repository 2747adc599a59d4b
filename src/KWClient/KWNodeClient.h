#pragma once

#include <map>
#include <memory>
#include <string>

#include <nan.h>

#include "core/Client.h"
#include "core/QOS.h"

class KWClientFunctions;

// The JavaScript messaging client: checks and converts arguments, wraps
// script functions in bridge objects and forwards to the KW::Client made by
// the registry for the destination type.
class KWNodeClient : public Nan::ObjectWrap {
  public:
    static void Init(v8::Local<v8::Object> exports);
    // Starts the Solace client library (once per process); a failure becomes
    // the pending JavaScript error. Called after every class is defined.
    static void startLibrary();
    static NAN_METHOD(New);
    static v8::Local<v8::Object> NewInstance(v8::Local<v8::Value> arg);
    // 2 stays GUARANTEED; every other number is AT_MOST_ONCE, never an error.
    static KW::QOS::Enum getQOS(unsigned int const& value);

    // Throws KW::Exception when no client can be made for the destination.
    KWNodeClient(std::string const& destinationId, std::string& destinationType,
                 std::map<std::string, std::string>& connectionData,
                 v8::Local<v8::Function> const& eventCallback);
    ~KWNodeClient() override;

    // Per thread: each Node.js environment (main thread, Worker) has its own.
    static thread_local Nan::Persistent<v8::Function> constructor;

  private:
    static NAN_METHOD(Connect);
    static NAN_METHOD(Disconnect);
    static NAN_METHOD(Publish);
    static NAN_METHOD(Subscribe);
    static NAN_METHOD(Forward);
    static NAN_METHOD(Unsubscribe);
    static NAN_METHOD(GetConnectionState);

    // The receiver, or null after throwing when its construction failed.
    static KWNodeClient* wrapperOf(Nan::FunctionCallbackInfo<v8::Value> const& info,
                                   char const* method);
    // The library client of the receiver, or null as wrapperOf.
    static KW::Client* clientOf(Nan::FunctionCallbackInfo<v8::Value> const& info,
                                char const* method);

    std::shared_ptr<KWClientFunctions> functions;
    std::shared_ptr<KW::Client> client;
    std::string destinationId;
    std::string destinationType;
    std::map<std::string, std::string> connectionData;
};
