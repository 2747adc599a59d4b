#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include <nan.h>

namespace KW {
class Client;
}

class KWCallbackProcessor;
class KWFunction;

// The functions one client calls: its event function and its subscription
// handlers. The bridge holds them while the client can deliver; while it is
// disconnected, failed or never connected they are parked: held by the client
// object alone (weakly here), so that a dropped client they reach is a plain
// cycle the collector takes, and the client's release ends its session.
// JavaScript thread only, except epoch().
class KWClientFunctions : public std::enable_shared_from_this<KWClientFunctions> {
  public:
    KWClientFunctions();
    ~KWClientFunctions();

    // A handle on fn for this client, parked at once while the others are.
    std::shared_ptr<KWFunction> share(v8::Local<v8::Function> const& fn);
    // The client object and its library client, until detach(); a new client
    // has nothing queued and cannot deliver, so its functions park at once.
    void attach(Nan::ObjectWrap* object, KW::Client* client);
    void detach();
    // The script's connect (true) or disconnect (false): reports raised before it are stale.
    void requested(bool connect);
    // A connection-state report raised at raisedAt has been through the event function.
    void reported(uint32_t state, uint64_t raisedAt);
    // The park request made at requestedAt: parks unless the script called
    // connect or disconnect since, or the client is up or reconnecting.
    void parkIfIdle(uint64_t requestedAt);
    // Any thread: read before the state of each report.
    uint64_t epoch() const { return current.load(); }

  private:
    // Parks once every item queued before has run: those hold the functions.
    void parkLater();
    void park();
    void hold();
    template <typename Visit>
    void forEachLive(Visit visit);

    std::shared_ptr<KWCallbackProcessor> processor;
    std::vector<std::weak_ptr<KWFunction>> functions;
    std::size_t pruneAt = 16;
    Nan::ObjectWrap* object = nullptr;
    KW::Client* client = nullptr;
    bool parked = false;
    std::atomic<uint64_t> current{0};
};
