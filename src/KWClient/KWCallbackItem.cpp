#include "KWClient/KWCallbackItem.h"

KWCallbackItem::~KWCallbackItem() = default;
