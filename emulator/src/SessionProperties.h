#pragma once

#include <string>

#include "PropertyList.h"

namespace SolEmu {

// A session property list, checked and parsed. Unknown names and malformed
// values are refused with a text naming the property, so that a caller's
// mistakes surface at session_create.
class SessionProperties {
  public:
    // False with `error` set when the list is not acceptable.
    bool parse(PropertyList const& list, std::string& error);

    bool tls = false;
    std::string hostPort = "127.0.0.1:55555";
    std::string vpn = "default";
    std::string user;
    std::string password;
    bool validateCertificate = true;
    std::string trustStoreDir;
    bool connectBlocking = true;
    long long connectRetries = 0;
    long long connectTimeoutMs = 30000;
    long long reconnectRetries = 0;
    long long reconnectRetryWaitMs = 3000;
    bool topicDispatch = false;
    bool reapplySubscriptions = false;
    bool subscribeBlocking = true;
    // The vendor's defaults where the list says nothing.
    bool ignoreDupSubscriptionError = true;
    bool sendBlocking = true;
    long long blockingWriteTimeoutMs = 100000;
    long long pubWindowSize = 50;
    bool blockWhileConnecting = true;
    long long subconfirmTimeoutMs = 10000;
};

}  // namespace SolEmu
