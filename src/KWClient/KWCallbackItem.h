#pragma once

#include "core/Reference.h"

// A unit of work for the JavaScript thread. Being a KW::Reference lets a
// completion callback travel through the core as a request's reference.
class KWCallbackItem : public KW::Reference {
  public:
    ~KWCallbackItem() override;

    // Runs on the JavaScript thread only; must not throw.
    virtual void executeCallback() = 0;
};
