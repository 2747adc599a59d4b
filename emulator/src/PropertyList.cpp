#include "PropertyList.h"

#include <cerrno>
#include <cstdlib>

namespace SolEmu {

bool PropertyList::read(solClient_propertyArray_pt props, std::string& error) {
    pairs.clear();
    if (props == nullptr) {
        return true;
    }
    for (size_t i = 0; props[i] != nullptr; i += 2) {
        if (props[i + 1] == nullptr) {
            error = std::string("property '") + props[i] + "' has no value";
            return false;
        }
        pairs.emplace_back(props[i], props[i + 1]);
    }
    return true;
}

std::string PropertyList::get(std::string const& name, std::string const& fallback) const {
    for (auto it = pairs.rbegin(); it != pairs.rend(); ++it) {
        if (it->first == name) {
            return it->second;
        }
    }
    return fallback;
}

std::string PropertyList::record() const {
    std::string text;
    for (auto const& entry : pairs) {
        if (!text.empty()) {
            text += '\n';
        }
        text += entry.first;
        text += '\n';
        text += entry.second;
    }
    return text;
}

bool PropertyList::isInteger(std::string const& value, long long& out) {
    if (value.empty() || value.size() > 19) {
        return false;
    }
    size_t i = value[0] == '-' ? 1 : 0;
    if (i == value.size()) {
        return false;
    }
    for (; i < value.size(); ++i) {
        if (value[i] < '0' || value[i] > '9') {
            return false;
        }
    }
    errno = 0;
    out = std::strtoll(value.c_str(), nullptr, 10);
    return errno == 0;
}

}  // namespace SolEmu
