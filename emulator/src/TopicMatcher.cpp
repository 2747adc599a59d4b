#include "TopicMatcher.h"

namespace SolEmu {

namespace {

std::vector<std::string> splitLevels(std::string const& text) {
    std::vector<std::string> levels;
    size_t start = 0;
    for (;;) {
        const size_t slash = text.find('/', start);
        if (slash == std::string::npos) {
            levels.push_back(text.substr(start));
            return levels;
        }
        levels.push_back(text.substr(start, slash - start));
        start = slash + 1;
    }
}

}  // namespace

bool TopicMatcher::isValidSubscription(std::string const& subscription) {
    if (subscription.empty()) {
        return false;
    }
    const std::vector<std::string> levels = splitLevels(subscription);
    for (size_t i = 0; i < levels.size(); ++i) {
        std::string const& level = levels[i];
        if (level.empty()) {
            return false;
        }
        if (level == ">") {
            if (i + 1 != levels.size()) {
                return false;
            }
            continue;
        }
        const size_t star = level.find('*');
        if (star != std::string::npos && star + 1 != level.size()) {
            return false;
        }
    }
    return true;
}

bool TopicMatcher::isValidTopic(std::string const& topic) {
    // No empty level: checked in place, as every direct send asks this.
    return !topic.empty() && topic.front() != '/' && topic.back() != '/' &&
           topic.find("//") == std::string::npos;
}

TopicMatcher::TopicMatcher(std::string const& subscription) : pattern(subscription) {
    const std::vector<std::string> parts = splitLevels(subscription);
    for (size_t i = 0; i < parts.size(); ++i) {
        std::string const& level = parts[i];
        if (level == ">" && i + 1 == parts.size()) {
            levels.push_back({Kind::REST, std::string()});
        } else if (level == "*") {
            levels.push_back({Kind::ANY_LEVEL, std::string()});
        } else if (!level.empty() && level.back() == '*') {
            levels.push_back({Kind::PREFIX, level.substr(0, level.size() - 1)});
        } else {
            levels.push_back({Kind::LITERAL, level});
        }
    }
}

bool TopicMatcher::matches(std::string const& topic) const {
    size_t pos = 0;  // start of the current topic level
    bool exhausted = topic.empty();
    for (Level const& level : levels) {
        if (exhausted) {
            return false;
        }
        if (level.kind == Kind::REST) {
            return true;  // at least one level remains, which is all ">" needs
        }
        size_t end = topic.find('/', pos);
        bool const last = end == std::string::npos;
        if (last) {
            end = topic.size();
        }
        const size_t length = end - pos;
        switch (level.kind) {
            case Kind::LITERAL:
                if (length != level.text.size() || topic.compare(pos, length, level.text) != 0) {
                    return false;
                }
                break;
            case Kind::PREFIX:
                if (length < level.text.size() ||
                    topic.compare(pos, level.text.size(), level.text) != 0) {
                    return false;
                }
                break;
            case Kind::ANY_LEVEL:
            case Kind::REST:
                break;
        }
        if (last) {
            exhausted = true;
        } else {
            pos = end + 1;
        }
    }
    return exhausted;
}

}  // namespace SolEmu
