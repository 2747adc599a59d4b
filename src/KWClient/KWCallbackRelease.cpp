#include "KWClient/KWCallbackRelease.h"

KWCallbackRelease::KWCallbackRelease(std::unique_ptr<KWFunction> callback)
    : callback(std::move(callback)) {}

KWCallbackRelease::~KWCallbackRelease() = default;

void KWCallbackRelease::executeCallback() {}
