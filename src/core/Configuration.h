#pragma once

#include <map>
#include <string>

namespace KW {

// Application-supplied resolver of destination data.
class Configuration {
  public:
    virtual ~Configuration();
    virtual bool resolveDestination(std::string const& data, std::string& destinationType,
                                    std::map<std::string, std::string>& properties) = 0;
};

}  // namespace KW
