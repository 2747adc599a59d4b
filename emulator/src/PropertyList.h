#pragma once

#include <string>
#include <utility>
#include <vector>

#include "solclient/SolClientABI.h"

namespace SolEmu {

// A vendor property array (name, value, ..., NULL) read into strings, with the
// checks every property list gets.
class PropertyList {
  public:
    // Reads `props` (NULL is an empty list). False on a name without a value or
    // a NULL value; `error` then says which.
    bool read(solClient_propertyArray_pt props, std::string& error);

    // The last value given for `name`, or `fallback`.
    std::string get(std::string const& name, std::string const& fallback) const;
    // Names and values joined by '\n', as solEmu_last*Properties report them.
    std::string record() const;
    std::vector<std::pair<std::string, std::string>> const& entries() const { return pairs; }

    // Value checks shared by the session and flow parsers.
    static bool isSwitch(std::string const& value) { return value == "0" || value == "1"; }
    // A decimal integer (optional leading '-'), no other characters.
    static bool isInteger(std::string const& value, long long& out);

  private:
    std::vector<std::pair<std::string, std::string>> pairs;
};

}  // namespace SolEmu
