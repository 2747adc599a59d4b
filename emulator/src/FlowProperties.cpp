#include "FlowProperties.h"

#include <algorithm>

namespace SolEmu {

bool FlowProperties::parse(PropertyList const& list, std::string& error) {
    bool queueEntity = false;
    for (auto const& entry : list.entries()) {
        std::string const& name = entry.first;
        std::string const& value = entry.second;
        auto bad = [&](char const* what) {
            error.assign("flow property ").append(name).append(": ").append(what);
            error.append(" ('").append(value).append("')");
            return false;
        };
        long long number = 0;
        if (name == "FLOW_BIND_BLOCKING" || name == "FLOW_BIND_ENTITY_DURABLE" ||
            name == "FLOW_START_STATE") {
            if (!PropertyList::isSwitch(value)) {
                return bad("expected \"0\" or \"1\"");
            }
            if (name == "FLOW_BIND_BLOCKING") {
                bindBlocking = value == "1";
            } else if (name == "FLOW_START_STATE") {
                startState = value == "1";
            } else if (value != "1") {
                return bad("only durable queues exist in the emulator");
            }
        } else if (name == "FLOW_ACKMODE") {
            if (value != "1" && value != "2") {
                return bad("expected \"1\" (auto) or \"2\" (client)");
            }
            clientAck = value == "2";
        } else if (name == "FLOW_MAX_BIND_TRIES") {
            if (!PropertyList::isInteger(value, number) || number < 1) {
                return bad("expected a positive integer");
            }
        } else if (name == "FLOW_BIND_TIMEOUT_MS") {
            if (!PropertyList::isInteger(value, number) || number < 1) {
                return bad("expected a positive integer");
            }
            bindTimeoutMs = number;
        } else if (name == "FLOW_WINDOWSIZE") {
            if (!PropertyList::isInteger(value, number) || number < 1 || number > 255) {
                return bad("expected an integer from 1 to 255");
            }
            windowSize = number;
        } else if (name == "FLOW_MAX_UNACKED_MESSAGES") {
            if (!PropertyList::isInteger(value, number) || number < -1) {
                return bad("expected an integer of -1 or more");
            }
            maxUnacked = number;
        } else if (name == "FLOW_BIND_ENTITY_ID") {
            if (value != "2") {
                return bad("the emulator binds queues only (\"2\")");
            }
            queueEntity = true;
        } else if (name == "FLOW_BIND_NAME") {
            if (value.empty()) {
                return bad("empty queue name");
            }
            queueName = value;
        } else {
            error = "unknown flow property " + name;
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
