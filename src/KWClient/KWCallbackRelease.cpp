#include "KWClient/KWCallbackRelease.h"

KWCallbackRelease::KWCallbackRelease(std::unique_ptr<Nan::Callback> callback)
    : callback(std::move(callback)) {}

KWCallbackRelease::~KWCallbackRelease() = default;

void KWCallbackRelease::executeCallback() {}
