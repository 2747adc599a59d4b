#include "SessionProperties.h"

#include <set>

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

bool SessionProperties::parse(PropertyList const& list, std::string& error) {
    for (auto const& entry : list.entries()) {
        std::string const& name = entry.first;
        std::string const& value = entry.second;
        auto bad = [&](char const* what) {
            error.assign("session property ").append(name).append(": ").append(what);
            error.append(" ('").append(value).append("')");
            return false;
        };
        long long number = 0;
        if (knownNames().count(name) == 0) {
            error = "unknown session property " + name;
            return false;
        }
        if (name == "SESSION_HOST") {
            if (!parseHost(value, tls, hostPort)) {
                return bad("expected tcp:host:port or tcps:host:port");
            }
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
        } else if (name == "SESSION_CONNECT_RETRIES" || name == "SESSION_RECONNECT_RETRIES") {
            if (!PropertyList::isInteger(value, number) || number < -1) {
                return bad("expected an integer of -1 or more");
            }
            (name == "SESSION_CONNECT_RETRIES" ? connectRetries : reconnectRetries) = number;
        } else if (name == "SESSION_CONNECT_TIMEOUT_MS" ||
                   name == "SESSION_BLOCKING_WRITE_TIMEOUT_MS" ||
                   name == "SESSION_SUBCONFIRM_TIMEOUT_MS" || name == "SESSION_PUB_ACK_TIMER") {
            if (!PropertyList::isInteger(value, number) || number <= 0) {
                return bad("expected a positive integer");
            }
            if (name == "SESSION_CONNECT_TIMEOUT_MS") {
                connectTimeoutMs = number;
            } else if (name == "SESSION_BLOCKING_WRITE_TIMEOUT_MS") {
                blockingWriteTimeoutMs = number;
            } else if (name == "SESSION_SUBCONFIRM_TIMEOUT_MS") {
                subconfirmTimeoutMs = number;
            }
        } else if (name == "SESSION_PUB_WINDOW_SIZE") {
            if (!PropertyList::isInteger(value, number) || number < 1 || number > 255) {
                return bad("expected an integer from 1 to 255");
            }
            pubWindowSize = number;
        } else if (name == "SESSION_RECONNECT_RETRY_WAIT_MS" ||
                   name == "SESSION_SOCKET_SEND_BUF_SIZE" ||
                   name == "SESSION_SOCKET_RCV_BUF_SIZE") {
            if (!PropertyList::isInteger(value, number) || number < 0) {
                return bad("expected a non-negative integer");
            }
            if (name == "SESSION_RECONNECT_RETRY_WAIT_MS") {
                reconnectRetryWaitMs = number;
            }
        } else {
            // Every remaining known property is a switch.
            if (!PropertyList::isSwitch(value)) {
                return bad("expected \"0\" or \"1\"");
            }
            bool const on = value == "1";
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
    }
    return true;
}

}  // namespace SolEmu
