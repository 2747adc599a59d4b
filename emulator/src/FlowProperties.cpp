#include "FlowProperties.h"

#include <algorithm>
#include <climits>

#include "PropertyField.h"

namespace SolEmu {

// A value that fails its check ends the parse (the caller discards the
// object), so the fields are set before `ok` is looked at.
bool FlowProperties::parse(PropertyList const& list, std::string& error) {
    bool queueEntity = false;
    for (auto const& entry : list.entries()) {
        PropertyField const field("flow", entry.first, entry.second, error);
        std::string const& name = field.name();
        std::string const& value = field.value();
        long long unused = 0;
        bool durable = true;
        bool ok = true;
        if (name == "FLOW_BIND_BLOCKING") {
            ok = field.readSwitch(bindBlocking);
        } else if (name == "FLOW_START_STATE") {
            ok = field.readSwitch(startState);
        } else if (name == "FLOW_BIND_ENTITY_DURABLE") {
            ok = field.readSwitch(durable) &&
                 (durable || field.reject("only durable queues exist in the emulator"));
        } else if (name == "FLOW_ACKMODE") {
            ok = value == "1" || value == "2" ||
                 field.reject("expected \"1\" (auto) or \"2\" (client)");
            clientAck = value == "2";
        } else if (name == "FLOW_MAX_BIND_TRIES") {
            ok = field.readInteger(1, LLONG_MAX, unused);
        } else if (name == "FLOW_BIND_TIMEOUT_MS") {
            ok = field.readInteger(1, LLONG_MAX, bindTimeoutMs);
        } else if (name == "FLOW_WINDOWSIZE") {
            ok = field.readInteger(1, 255, windowSize);
        } else if (name == "FLOW_MAX_UNACKED_MESSAGES") {
            ok = field.readInteger(-1, LLONG_MAX, maxUnacked);
        } else if (name == "FLOW_BIND_ENTITY_ID") {
            ok = value == "2" || field.reject("the emulator binds queues only (\"2\")");
            queueEntity = true;
        } else if (name == "FLOW_BIND_NAME") {
            ok = !value.empty() || field.reject("empty queue name");
            queueName = value;
        } else {
            ok = field.rejectUnknown();
        }
        if (!ok) {
            return false;
        }
    }
    if (!queueEntity) {
        error = "flow property FLOW_BIND_ENTITY_ID: the emulator binds queues only (\"2\")";
        return false;
    }
    if (queueName.empty()) {
        error = "flow property FLOW_BIND_NAME is missing";
        return false;
    }
    return true;
}

size_t FlowProperties::window() const {
    long long limit = windowSize;
    if (maxUnacked > 0) {
        limit = std::min(limit, maxUnacked);
    }
    return static_cast<size_t>(limit);
}

}  // namespace SolEmu
