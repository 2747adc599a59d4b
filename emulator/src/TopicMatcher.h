#pragma once

#include <string>
#include <vector>

namespace SolEmu {

// A compiled topic subscription in the vendor's grammar: levels separated by
// "/", a level "*" matches exactly one level, "ab*" matches a level starting
// with "ab", and a last level ">" matches one or more further levels.
class TopicMatcher {
  public:
    // Empty text, an empty level, ">" anywhere but as the whole last level, or
    // "*" anywhere but at the end of a level are refused.
    static bool isValidSubscription(std::string const& subscription);
    // A topic to publish on: non-empty, no empty level. Wildcard characters
    // are plain characters here.
    static bool isValidTopic(std::string const& topic);

    // `subscription` must be valid.
    explicit TopicMatcher(std::string const& subscription);

    bool matches(std::string const& topic) const;
    std::string const& text() const { return pattern; }

  private:
    enum Kind : int { LITERAL, ANY_LEVEL, PREFIX, REST };
    struct Level {
        Kind kind;
        std::string text;  // literal text, or the prefix before "*"
    };
    std::string pattern;
    std::vector<Level> levels;
};

}  // namespace SolEmu
