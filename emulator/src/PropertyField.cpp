#include "PropertyField.h"

#include <climits>

#include "PropertyList.h"

namespace SolEmu {

PropertyField::PropertyField(char const* listKind, std::string const& fieldName,
                             std::string const& fieldValue, std::string& error)
    : kind(listKind), key(fieldName), text(fieldValue), errorText(error) {}

bool PropertyField::reject(std::string const& what) const {
    errorText.assign(kind).append(" property ").append(key).append(": ").append(what);
    errorText.append(" ('").append(text).append("')");
    return false;
}

bool PropertyField::rejectUnknown() const {
    errorText.assign("unknown ").append(kind).append(" property ").append(key);
    return false;
}

bool PropertyField::readSwitch(bool& out) const {
    if (text != "0" && text != "1") {
        return reject("expected \"0\" or \"1\"");
    }
    out = text == "1";
    return true;
}

bool PropertyField::readInteger(long long min, long long max, long long& out) const {
    long long number = 0;
    if (PropertyList::isInteger(text, number) && number >= min && number <= max) {
        out = number;
        return true;
    }
    if (max != LLONG_MAX) {
        return reject("expected an integer from " + std::to_string(min) + " to " +
                      std::to_string(max));
    }
    if (min == 0) {
        return reject("expected a non-negative integer");
    }
    if (min == 1) {
        return reject("expected a positive integer");
    }
    return reject("expected an integer of " + std::to_string(min) + " or more");
}

}  // namespace SolEmu
