#pragma once

#include <memory>

#include <nan.h>

#include "KWClient/KWCallbackItem.h"
#include "KWClient/KWFunction.h"

// Carries a function handle released on a library thread to the JavaScript
// thread, where dropping the item disposes it. Running it does nothing.
class KWCallbackRelease : public KWCallbackItem {
  public:
    explicit KWCallbackRelease(std::unique_ptr<KWFunction> callback);
    ~KWCallbackRelease() override;
    void executeCallback() override;

  private:
    std::unique_ptr<KWFunction> callback;
};
