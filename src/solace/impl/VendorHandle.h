#pragma once

#include <atomic>

#include "core/DroppedFailures.h"
#include "solclient/SolClientABI.h"
#include "solace/SolaceAPI.h"

namespace KW {
namespace Solace {
namespace Impl {

// Owns one vendor handle of one kind and gives it back through the loaded
// function table exactly once: close forgets the handle whatever the vendor
// answers, so neither a second close nor the destructor can free it again
// (a handle the vendor refused to free is its own; retrying it later could
// outlive the session or library it belonged to). The handle is stored
// atomically: a flow's is read by acknowledging threads while its owner
// closes it.
// Destroy: the table entry that frees this kind, e.g. &SolaceAPI::msgFree.
template <typename Pointer, auto Destroy>
class VendorHandle {
  public:
    explicit VendorHandle(SolaceAPI const& api) : api(api), handle(nullptr) {}
    ~VendorHandle() { reset(); }

    VendorHandle(VendorHandle const&) = delete;
    VendorHandle& operator=(VendorHandle const&) = delete;

    Pointer get() const { return handle.load(); }
    explicit operator bool() const { return get() != nullptr; }

    // Takes over a handle that a create or alloc call has just filled in.
    void adopt(Pointer created) {
        reset();
        handle.store(created);
    }

    // Frees the handle now; the vendor's return code, SOLCLIENT_OK when
    // there was nothing to free.
    solClient_returnCode_t close() {
        Pointer current = handle.exchange(nullptr);
        if (current == nullptr) {
            return SOLCLIENT_OK;
        }
        return (api.*Destroy)(&current);
    }

    // Frees the handle where nobody could act on a failure; one is counted.
    void reset() {
        if (close() != SOLCLIENT_OK) {
            KW::DroppedFailures::record(siteName(), "the vendor refused to free a handle");
        }
    }

  private:
    // The site a refused free is counted under: the vendor function's name.
    static constexpr char const* siteName() {
        if constexpr (Destroy == &SolaceAPI::msgFree) {
            return "solClient_msg_free";
        } else if constexpr (Destroy == &SolaceAPI::flowDestroy) {
            return "solClient_flow_destroy";
        } else if constexpr (Destroy == &SolaceAPI::sessionDestroy) {
            return "solClient_session_destroy";
        } else {
            return "solClient_context_destroy";
        }
    }

    SolaceAPI const& api;
    std::atomic<Pointer> handle;
};

using MessageHandle = VendorHandle<solClient_opaqueMsg_pt, &SolaceAPI::msgFree>;
using FlowHandle = VendorHandle<solClient_opaqueFlow_pt, &SolaceAPI::flowDestroy>;
using SessionHandle = VendorHandle<solClient_opaqueSession_pt, &SolaceAPI::sessionDestroy>;
using ContextHandle = VendorHandle<solClient_opaqueContext_pt, &SolaceAPI::contextDestroy>;

}  // namespace Impl
}  // namespace Solace
}  // namespace KW
