#pragma once

#include <cstdint>
#include <memory>

#include <nan.h>

#include "KWClient/KWCallbackItem.h"
#include "KWClient/KWFunction.h"

// The smallest useful callback item: calls fn(threadIndex, seq, batch) on the
// JavaScript thread, batch being the number of the kw_item_callback run that
// executed it.
class KWProbeItem : public KWCallbackItem {
  public:
    KWProbeItem(std::shared_ptr<KWFunction> callback, uint32_t threadIndex, uint32_t seq);
    ~KWProbeItem() override;
    void executeCallback() override;

  private:
    std::shared_ptr<KWFunction> callback;
    uint32_t threadIndex;
    uint32_t seq;
};
