#pragma once

#include <string>

namespace SolEmu {

// One name/value pair of a session or flow property list while it is parsed,
// with the value checks both parsers share. A failed check writes the text
// that names the property ("flow property FLOW_WINDOWSIZE: expected ...
// ('0')") into the parser's error and returns false.
class PropertyField {
  public:
    PropertyField(char const* listKind, std::string const& fieldName, std::string const& fieldValue,
                  std::string& error);

    std::string const& name() const { return key; }
    std::string const& value() const { return text; }

    // Writes "<kind> property <name>: <what> ('<value>')" and returns false.
    bool reject(std::string const& what) const;
    // Writes "unknown <kind> property <name>" and returns false.
    bool rejectUnknown() const;
    // "0" or "1".
    bool readSwitch(bool& out) const;
    // A decimal integer from `min` to `max` (no upper bound when `max` is
    // LLONG_MAX).
    bool readInteger(long long min, long long max, long long& out) const;

  private:
    char const* kind;
    std::string const& key;
    std::string const& text;
    std::string& errorText;
};

}  // namespace SolEmu
