#pragma once

#include <memory>

namespace KW {

// Opaque correlation object attached to an asynchronous request and handed
// back, untouched, with its outcome.
class Reference {
  public:
    virtual ~Reference();

    // The empty reference: nobody is to be told of the outcome.
    static std::shared_ptr<Reference> const NONE;
};

}  // namespace KW
