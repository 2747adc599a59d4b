#include "SessionProperties.h"

#include <climits>
#include <set>

#include "PropertyField.h"

namespace SolEmu {

namespace {

std::set<std::string> const& knownNames() {
    static const std::set<std::string> names = {
        "SESSION_HOST",
        "SESSION_VPN_NAME",
        "SESSION_USERNAME",
        "SESSION_PASSWORD",
        "SESSION_SSL_CIPHER_SUITES",
        "SESSION_SSL_EXCLUDED_PROTOCOLS",
        "SESSION_SSL_VALIDATE_CERTIFICATE",
        "SESSION_SSL_VALIDATE_CERTIFICATE_DATE",
        "SESSION_SSL_TRUST_STORE_DIR",
        "SESSION_CONNECT_BLOCKING",
        "SESSION_CONNECT_RETRIES",
        "SESSION_CONNECT_TIMEOUT_MS",
        "SESSION_RECONNECT_RETRIES",
        "SESSION_RECONNECT_RETRY_WAIT_MS",
        "SESSION_SOCKET_SEND_BUF_SIZE",
        "SESSION_SOCKET_RCV_BUF_SIZE",
        "SESSION_TOPIC_DISPATCH",
        "SESSION_REAPPLY_SUBSCRIPTIONS",
        "SESSION_SUBSCRIBE_BLOCKING",
        "SESSION_IGNORE_DUP_SUBSCRIPTION_ERROR",
        "SESSION_SEND_BLOCKING",
        "SESSION_BLOCKING_WRITE_TIMEOUT_MS",
        "SESSION_PUB_WINDOW_SIZE",
        "SESSION_BLOCK_WHILE_CONNECTING",
        "SESSION_SUBCONFIRM_TIMEOUT_MS",
        "SESSION_PUB_ACK_TIMER",
    };
    return names;
}

bool parseHost(std::string const& value, bool& tls, std::string& hostPort) {
    std::string rest;
    if (value.rfind("tcp:", 0) == 0) {
        tls = false;
        rest = value.substr(4);
    } else if (value.rfind("tcps:", 0) == 0) {
        tls = true;
        rest = value.substr(5);
    } else {
        return false;
    }
    const size_t colon = rest.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == rest.size()) {
        return false;
    }
    long long port = 0;
    if (!PropertyList::isInteger(rest.substr(colon + 1), port) || port <= 0 || port > 65535) {
        return false;
    }
    hostPort = rest;
    return true;
}

}  // namespace

// A value that fails its check ends the parse (the caller discards the
// object), so the fields are set before `ok` is looked at.
bool SessionProperties::parse(PropertyList const& list, std::string& error) {
    for (auto const& entry : list.entries()) {
        PropertyField const field("session", entry.first, entry.second, error);
        std::string const& name = field.name();
        std::string const& value = field.value();
        long long unused = 0;
        bool ok = true;
        if (knownNames().count(name) == 0) {
            ok = field.rejectUnknown();
        } else if (name == "SESSION_HOST") {
            ok = parseHost(value, tls, hostPort) ||
                 field.reject("expected tcp:host:port or tcps:host:port");
        } else if (name == "SESSION_VPN_NAME") {
            vpn = value;
        } else if (name == "SESSION_USERNAME") {
            user = value;
        } else if (name == "SESSION_PASSWORD") {
            password = value;
        } else if (name == "SESSION_SSL_TRUST_STORE_DIR") {
            trustStoreDir = value;
        } else if (name == "SESSION_SSL_CIPHER_SUITES" ||
                   name == "SESSION_SSL_EXCLUDED_PROTOCOLS") {
            // Free text; nothing to negotiate here.
        } else if (name == "SESSION_CONNECT_RETRIES") {
            ok = field.readInteger(-1, LLONG_MAX, connectRetries);
        } else if (name == "SESSION_RECONNECT_RETRIES") {
            ok = field.readInteger(-1, LLONG_MAX, reconnectRetries);
        } else if (name == "SESSION_CONNECT_TIMEOUT_MS") {
            ok = field.readInteger(1, LLONG_MAX, connectTimeoutMs);
        } else if (name == "SESSION_BLOCKING_WRITE_TIMEOUT_MS") {
            ok = field.readInteger(1, LLONG_MAX, blockingWriteTimeoutMs);
        } else if (name == "SESSION_SUBCONFIRM_TIMEOUT_MS") {
            ok = field.readInteger(1, LLONG_MAX, subconfirmTimeoutMs);
        } else if (name == "SESSION_PUB_ACK_TIMER") {
            ok = field.readInteger(1, LLONG_MAX, unused);
        } else if (name == "SESSION_PUB_WINDOW_SIZE") {
            ok = field.readInteger(1, 255, pubWindowSize);
        } else if (name == "SESSION_RECONNECT_RETRY_WAIT_MS") {
            ok = field.readInteger(0, LLONG_MAX, reconnectRetryWaitMs);
        } else if (name == "SESSION_SOCKET_SEND_BUF_SIZE" ||
                   name == "SESSION_SOCKET_RCV_BUF_SIZE") {
            ok = field.readInteger(0, LLONG_MAX, unused);
        } else {
            // Every remaining known property is a switch.
            bool on = false;
            ok = field.readSwitch(on);
            if (name == "SESSION_SSL_VALIDATE_CERTIFICATE") {
                validateCertificate = on;
            } else if (name == "SESSION_CONNECT_BLOCKING") {
                connectBlocking = on;
            } else if (name == "SESSION_TOPIC_DISPATCH") {
                topicDispatch = on;
            } else if (name == "SESSION_REAPPLY_SUBSCRIPTIONS") {
                reapplySubscriptions = on;
            } else if (name == "SESSION_SUBSCRIBE_BLOCKING") {
                subscribeBlocking = on;
            } else if (name == "SESSION_IGNORE_DUP_SUBSCRIPTION_ERROR") {
                ignoreDupSubscriptionError = on;
            } else if (name == "SESSION_SEND_BLOCKING") {
                sendBlocking = on;
            } else if (name == "SESSION_BLOCK_WHILE_CONNECTING") {
                blockWhileConnecting = on;
            }
        }
        if (!ok) {
            return false;
        }
    }
    return true;
}

}  // namespace SolEmu
