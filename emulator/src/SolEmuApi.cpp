// The emulator's control functions (solEmu_*): thin calls into its classes.

#pragma GCC visibility push(default)
#include "solclient/SolClientABI.h"
#include "SolClientEmulator.h"
#pragma GCC visibility pop

#include <cstring>
#include <string>

#include "Broker.h"
#include "BrokerRegistry.h"
#include "Context.h"
#include "FaultInjector.h"
#include "Library.h"
#include "Message.h"
#include "Session.h"

using SolEmu::BrokerRegistry;
using SolEmu::Context;
using SolEmu::FaultInjector;
using SolEmu::Library;

namespace {

size_t copyOut(std::string const& text, char* buffer, size_t size) {
    if (buffer != nullptr && size > 0) {
        const size_t n = std::min(text.size(), size - 1);
        std::memcpy(buffer, text.data(), n);
        buffer[n] = '\0';
    }
    return text.size();
}

}  // namespace

extern "C" {

void solEmu_reset(void) {
    Library::instance().reset();
}

void solEmu_setBrokerUp(char const* hostPort, int up) {
    if (hostPort != nullptr) {
        BrokerRegistry::instance().broker(hostPort)->setUp(up != 0);
    }
}

void solEmu_refuseUser(char const* user) {
    FaultInjector::instance().refuseUser(user);
}

int solEmu_addQueue(char const* name) {
    return name != nullptr && BrokerRegistry::instance().addQueue(name) ? 0 : -1;
}

int solEmu_removeQueue(char const* name) {
    return name != nullptr && BrokerRegistry::instance().removeQueue(name) ? 0 : -1;
}

long solEmu_queueDepth(char const* name) {
    return name != nullptr ? BrokerRegistry::instance().queueDepth(name) : -1;
}

int solEmu_failNext(char const* function, int count, int returnCode, int subCode,
                    char const* text) {
    if (function == nullptr) {
        return -1;
    }
    return FaultInjector::instance().failNext(function, count, returnCode, subCode,
                                              text != nullptr ? text : "")
               ? 0
               : -1;
}

void solEmu_refuseSubscriptions(char const* topic, int subCode) {
    if (topic == nullptr) {
        FaultInjector::instance().refuseSubscriptions(nullptr, subCode);
    } else {
        const std::string text(topic);
        FaultInjector::instance().refuseSubscriptions(&text, subCode);
    }
}

void solEmu_setAckMode(int mode) {
    using Mode = FaultInjector::AckMode;
    const Mode next = mode == 1 ? Mode::REJECT : mode == 2 ? Mode::WITHHOLD : Mode::ACKNOWLEDGE;
    FaultInjector::instance().setAckMode(next);
    if (next == Mode::ACKNOWLEDGE) {
        Library::instance().releaseWithheld();
    }
}

void solEmu_setReapplyAfterDisconnect(int on) {
    FaultInjector::instance().setReapplyAfterDisconnect(on != 0);
}

void solEmu_holdDeliveries(int hold) {
    Context::setHeld(hold != 0);
    if (hold == 0) {
        Library::instance().wakeContexts();
    }
}

void solEmu_setRoundTrip(unsigned us) {
    Context::setRoundTrip(us);
    Library::instance().wakeContexts();
}

void solEmu_endSessions(char const* hostPort) {
    if (hostPort != nullptr) {
        Library::instance().endSessions(hostPort);
    }
}

long solEmu_blockedCalls(void) {
    return SolEmu::Session::blockedNow();
}

long solEmu_windowWaits(void) {
    return SolEmu::Session::windowWaits();
}

long solEmu_changedAttachments(void) {
    return SolEmu::Session::changedAttachments();
}

long solEmu_liveMessages(void) {
    return SolEmu::Message::live();
}

size_t solEmu_lastSessionProperties(char* buffer, size_t size) {
    return copyOut(Library::instance().lastSessionProperties(), buffer, size);
}

size_t solEmu_lastFlowProperties(char* buffer, size_t size) {
    return copyOut(Library::instance().lastFlowProperties(), buffer, size);
}

long solEmu_liveSessions(void) {
    return Library::instance().liveSessions();
}

int solEmu_msgIsRedelivered(void* msg) {
    SolEmu::Message const* found = SolEmu::Message::fromHandle(msg);
    return found == nullptr ? -1 : (found->redelivered() ? 1 : 0);
}

}  // extern "C"
