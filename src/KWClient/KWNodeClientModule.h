#pragma once

#include <nan.h>

// The add-on's register function: initialises the client class, the event
// class and the message class, then starts the Solace client library.
void InitAll(v8::Local<v8::Object> exports);
