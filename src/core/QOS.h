#pragma once

namespace KW {

// Quality of service. Anything but GUARANTEED is sent at most once; no value
// is ever rejected as invalid.
class QOS {
  public:
    enum Enum { AT_MOST_ONCE = 1, GUARANTEED = 2 };
};

}  // namespace KW
