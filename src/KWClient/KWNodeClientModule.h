#pragma once

#include <nan.h>

// The add-on's register function: initialises the client class (starting the
// Solace client library), then the event class, then the message class.
void InitAll(v8::Local<v8::Object> exports);
