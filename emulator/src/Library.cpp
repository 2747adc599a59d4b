#include "Library.h"

#include <cstdlib>
#include <sstream>
#include <vector>

#include "Broker.h"
#include "BrokerRegistry.h"
#include "Context.h"
#include "ErrorInfo.h"
#include "FaultInjector.h"
#include "Flow.h"
#include "FlowProperties.h"
#include "PropertyList.h"
#include "Session.h"
#include "SessionProperties.h"

namespace SolEmu {

namespace {

std::vector<std::string> split(std::string const& text, char separator) {
    std::vector<std::string> parts;
    std::string part;
    std::istringstream stream(text);
    while (std::getline(stream, part, separator)) {
        if (!part.empty()) {
            parts.push_back(part);
        }
    }
    return parts;
}

bool envFailure(char const* variable, std::string const& entry) {
    ErrorInfo::set(SOLCLIENT_SUBCODE_PARAM_OUT_OF_RANGE, 0,
                   std::string(variable) + ": malformed entry '" + entry + "'");
    return false;
}

}  // namespace

Library& Library::instance() {
    // Never destroyed: context threads left running by a program must not
    // outlive the tables they use.
    static Library* library = new Library();
    return *library;
}

bool Library::loadEnvironment() {
    if (char const* queues = std::getenv("SOLCLIENT_EMULATOR_QUEUES")) {
        for (std::string const& name : split(queues, ',')) {
            BrokerRegistry::instance().addQueue(name);
        }
    }
    if (char const* fail = std::getenv("SOLCLIENT_EMULATOR_FAIL")) {
        // function:count:returnCode:subCode:text;...
        for (std::string const& entry : split(fail, ';')) {
            std::vector<std::string> fields;
            size_t start = 0;
            for (int i = 0; i < 4; ++i) {
                const size_t colon = entry.find(':', start);
                if (colon == std::string::npos) {
                    return envFailure("SOLCLIENT_EMULATOR_FAIL", entry);
                }
                fields.push_back(entry.substr(start, colon - start));
                start = colon + 1;
            }
            long long count = 0, rc = 0, sub = 0;
            if (!PropertyList::isInteger(fields[1], count) ||
                !PropertyList::isInteger(fields[2], rc) ||
                !PropertyList::isInteger(fields[3], sub) ||
                !FaultInjector::instance().failNext(fields[0], static_cast<int>(count),
                                                    static_cast<int>(rc), static_cast<int>(sub),
                                                    entry.substr(start))) {
                return envFailure("SOLCLIENT_EMULATOR_FAIL", entry);
            }
        }
    }
    if (char const* refuse = std::getenv("SOLCLIENT_EMULATOR_REFUSE_SUBSCRIPTIONS")) {
        // subCode[:topic];...  (no topic: every topic)
        for (std::string const& entry : split(refuse, ';')) {
            const size_t colon = entry.find(':');
            long long sub = 0;
            if (!PropertyList::isInteger(entry.substr(0, colon), sub)) {
                return envFailure("SOLCLIENT_EMULATOR_REFUSE_SUBSCRIPTIONS", entry);
            }
            if (colon == std::string::npos) {
                FaultInjector::instance().refuseSubscriptions(nullptr, static_cast<int>(sub));
            } else {
                const std::string topic = entry.substr(colon + 1);
                FaultInjector::instance().refuseSubscriptions(&topic, static_cast<int>(sub));
            }
        }
    }
    if (char const* mode = std::getenv("SOLCLIENT_EMULATOR_ACK_MODE")) {
        const std::string value(mode);
        if (value == "ack" || value == "0") {
            FaultInjector::instance().setAckMode(FaultInjector::AckMode::ACKNOWLEDGE);
        } else if (value == "reject" || value == "1") {
            FaultInjector::instance().setAckMode(FaultInjector::AckMode::REJECT);
        } else if (value == "withhold" || value == "2") {
            FaultInjector::instance().setAckMode(FaultInjector::AckMode::WITHHOLD);
        } else {
            return envFailure("SOLCLIENT_EMULATOR_ACK_MODE", value);
        }
    }
    if (char const* users = std::getenv("SOLCLIENT_EMULATOR_REFUSE_USERS")) {
        for (std::string const& user : split(users, ',')) {
            FaultInjector::instance().refuseUser(user.c_str());
        }
    }
    if (char const* roundTrip = std::getenv("SOLCLIENT_EMULATOR_ROUND_TRIP_US")) {
        long long us = 0;
        if (!PropertyList::isInteger(roundTrip, us) || us < 0 || us > 60000000) {
            return envFailure("SOLCLIENT_EMULATOR_ROUND_TRIP_US", roundTrip);
        }
        Context::setRoundTrip(static_cast<unsigned>(us));
    }
    if (char const* down = std::getenv("SOLCLIENT_EMULATOR_BROKERS_DOWN")) {
        for (std::string const& hostPort : split(down, ',')) {
            BrokerRegistry::instance().broker(hostPort)->setUp(false);
        }
    }
    return true;
}

solClient_returnCode_t Library::initialize() {
    std::lock_guard<std::mutex> lock(mutex);
    if (!environmentLoaded) {
        if (!loadEnvironment()) {
            return SOLCLIENT_FAIL;
        }
        environmentLoaded = true;
    }
    if (auto injected = FaultInjector::instance().check("solClient_initialize")) {
        return *injected;
    }
    initialized = true;
    return SOLCLIENT_OK;
}

solClient_returnCode_t Library::cleanup() {
    for (auto const& entry : contexts.values()) {
        destroyContext(entry.context->handle());
    }
    std::lock_guard<std::mutex> lock(mutex);
    initialized = false;
    return SOLCLIENT_OK;
}

bool Library::checkInitialized() const {
    bool const ready = initialized.load(std::memory_order_acquire);
    if (!ready) {
        ErrorInfo::set(SOLCLIENT_SUBCODE_INIT_NOT_CALLED, 0, "solClient_initialize not called");
    }
    return ready;
}

solClient_returnCode_t Library::createContext(solClient_propertyArray_pt props, void** handle) {
    PropertyList list;
    std::string error;
    if (!list.read(props, error)) {
        return ErrorInfo::fail(SOLCLIENT_SUBCODE_PARAM_OUT_OF_RANGE, error);
    }
    for (auto const& entry : list.entries()) {
        if (entry.first != "CONTEXT_CREATE_THREAD") {
            return ErrorInfo::fail(SOLCLIENT_SUBCODE_PARAM_OUT_OF_RANGE,
                                   "unknown context property " + entry.first);
        }
    }
    // There is no processEvents here, so only contexts with their own thread work.
    if (list.get("CONTEXT_CREATE_THREAD", "0") != "1") {
        return ErrorInfo::fail(SOLCLIENT_SUBCODE_PARAM_CONFLICT,
                               "the emulator needs CONTEXT_CREATE_THREAD \"1\"");
    }
    auto context = std::make_shared<Context>();
    *handle = context->handle();
    contexts.add(*handle, ContextEntry{context});
    return SOLCLIENT_OK;
}

solClient_returnCode_t Library::destroyContext(void* handle) {
    ContextEntry entry;
    if (!contexts.find(handle, entry)) {
        return ErrorInfo::fail(SOLCLIENT_SUBCODE_PARAM_NULL_PTR, "unknown context handle");
    }
    if (entry.context->onThread()) {
        return ErrorInfo::fail(SOLCLIENT_SUBCODE_CANNOT_BLOCK_IN_CONTEXT,
                               "context_destroy called on the context's own thread");
    }
    if (!contexts.remove(handle, entry)) {
        return ErrorInfo::fail(SOLCLIENT_SUBCODE_PARAM_NULL_PTR, "unknown context handle");
    }
    // Its sessions go with it.
    for (auto const& session : sessions.values()) {
        if (session.contextHandle == handle) {
            destroySession(session.session->handle());
        }
    }
    entry.context->stop();
    return SOLCLIENT_OK;
}

template <typename Properties>
solClient_returnCode_t Library::readProperties(solClient_propertyArray_pt props,
                                               std::string& record, Properties& parsed) {
    PropertyList list;
    std::string error;
    bool const read = list.read(props, error);
    {
        std::lock_guard<std::mutex> lock(mutex);
        record = list.record();
    }
    if (!read) {
        return ErrorInfo::fail(SOLCLIENT_SUBCODE_PARAM_NULL_PTR, error);
    }
    if (!parsed.parse(list, error)) {
        return ErrorInfo::fail(SOLCLIENT_SUBCODE_PARAM_OUT_OF_RANGE, error);
    }
    return SOLCLIENT_OK;
}

solClient_returnCode_t Library::createSession(solClient_propertyArray_pt props, void* contextHandle,
                                              void** handle,
                                              solClient_session_createFuncInfo_t const& funcs) {
    SessionProperties properties;
    if (readProperties(props, lastSessionPropertyText, properties) != SOLCLIENT_OK) {
        return SOLCLIENT_FAIL;
    }
    ContextEntry context;
    if (!contexts.find(contextHandle, context)) {
        return ErrorInfo::fail(SOLCLIENT_SUBCODE_PARAM_NULL_PTR, "unknown context handle");
    }
    auto session = std::make_shared<Session>(context.context, std::move(properties), funcs);
    *handle = session->handle();
    sessions.add(session->handle(), SessionEntry{session, contextHandle});
    return SOLCLIENT_OK;
}

solClient_returnCode_t Library::destroySession(void* handle) {
    SessionEntry entry;
    // The vendor forbids it: the destroy would wait out the very callback that called it.
    if (sessions.find(handle, entry) && entry.session->context()->runningFor(entry.session.get())) {
        return ErrorInfo::fail(SOLCLIENT_SUBCODE_CANNOT_BLOCK_IN_CONTEXT,
                               "session_destroy called from the session's own callback");
    }
    if (!sessions.remove(handle, entry)) {
        return ErrorInfo::fail(SOLCLIENT_SUBCODE_PARAM_NULL_PTR, "unknown session handle");
    }
    for (auto const& flow : entry.session->destroy()) {
        FlowEntry removed;
        flows.remove(flow->handle(), removed);
    }
    return SOLCLIENT_OK;
}

std::shared_ptr<Session> Library::session(void* handle) const {
    // The session this thread found last: a stream of sends on one session skips the
    // table's lock, as long as no session was destroyed since.
    thread_local struct {
        void* handle = nullptr;
        uint64_t removals = 0;
        std::weak_ptr<Session> session;
    } last;
    uint64_t const removals = sessions.removals();
    if (handle != nullptr && handle == last.handle && removals == last.removals) {
        if (std::shared_ptr<Session> live = last.session.lock()) {
            return live;
        }
    }
    SessionEntry entry;
    if (!sessions.find(handle, entry)) {
        ErrorInfo::set(SOLCLIENT_SUBCODE_PARAM_NULL_PTR, 0, "unknown session handle");
        return nullptr;
    }
    last.handle = handle;
    last.removals = removals;
    last.session = entry.session;
    return entry.session;
}

solClient_returnCode_t Library::createFlow(solClient_propertyArray_pt props, void* sessionHandle,
                                           void** handle,
                                           solClient_flow_createFuncInfo_t const& funcs) {
    FlowProperties properties;
    if (readProperties(props, lastFlowPropertyText, properties) != SOLCLIENT_OK) {
        return SOLCLIENT_FAIL;
    }
    std::shared_ptr<Session> owner = session(sessionHandle);
    if (!owner) {
        return SOLCLIENT_FAIL;
    }
    std::shared_ptr<Flow> created;
    void* added = nullptr;
    const solClient_returnCode_t rc =
        owner->createFlow(properties, funcs, created, [&](std::shared_ptr<Flow> const& flow) {
            added = flow->handle();
            flows.add(added, FlowEntry{flow, owner});
        });
    if (created) {
        *handle = created->handle();
    } else if (added != nullptr) {
        FlowEntry refused;  // a blocking bind that failed: never handed out
        flows.remove(added, refused);
    }
    return rc;
}

solClient_returnCode_t Library::destroyFlow(void* handle) {
    FlowEntry entry;
    if (flows.find(handle, entry) && entry.session->context()->runningFor(entry.flow.get())) {
        return ErrorInfo::fail(SOLCLIENT_SUBCODE_CANNOT_BLOCK_IN_CONTEXT,
                               "flow_destroy called from the flow's own callback");
    }
    if (!flows.remove(handle, entry)) {
        return ErrorInfo::fail(SOLCLIENT_SUBCODE_PARAM_NULL_PTR, "unknown flow handle");
    }
    entry.flow->destroy();
    entry.session->forgetFlow(entry.flow.get());
    return SOLCLIENT_OK;
}

std::shared_ptr<Flow> Library::flow(void* handle) const {
    FlowEntry entry;
    if (!flows.find(handle, entry)) {
        ErrorInfo::set(SOLCLIENT_SUBCODE_PARAM_NULL_PTR, 0, "unknown flow handle");
        return nullptr;
    }
    return entry.flow;
}

std::string Library::lastSessionProperties() const {
    std::lock_guard<std::mutex> lock(mutex);
    return lastSessionPropertyText;
}

std::string Library::lastFlowProperties() const {
    std::lock_guard<std::mutex> lock(mutex);
    return lastFlowPropertyText;
}

void Library::releaseWithheld() {
    for (auto const& entry : sessions.values()) {
        entry.session->releaseWithheld();
    }
}

void Library::endSessions(std::string const& hostPort) {
    for (auto const& entry : sessions.values()) {
        if (entry.session->hostPort() == hostPort) {
            entry.session->endedByBroker();
        }
    }
}

void Library::wakeContexts() {
    for (auto const& entry : contexts.values()) {
        entry.context->wake();
    }
}

void Library::reset() {
    FaultInjector::instance().reset();
    BrokerRegistry::instance().reset();
    Context::setHeld(false);
    wakeContexts();
    std::lock_guard<std::mutex> lock(mutex);
    lastSessionPropertyText.clear();
    lastFlowPropertyText.clear();
}

}  // namespace SolEmu
