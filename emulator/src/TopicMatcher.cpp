#include "TopicMatcher.h"

namespace solemu {

namespace {

std::vector<std::string> splitLevels(const std::string& text) {
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

bool TopicMatcher::isValidSubscription(const std::string& subscription) {
    if (subscription.empty()) {
        return false;
    }
    const std::vector<std::string> levels = splitLevels(subscription);
    for (size_t i = 0; i < levels.size(); ++i) {
        const std::string& level = levels[i];
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

bool TopicMatcher::isValidTopic(const std::string& topic) {
    if (topic.empty()) {
        return false;
    }
    for (const std::string& level : splitLevels(topic)) {
        if (level.empty()) {
            return false;
        }
    }
    return true;
}

TopicMatcher::TopicMatcher(const std::string& subscription) : text_(subscription) {
    const std::vector<std::string> levels = splitLevels(subscription);
    for (size_t i = 0; i < levels.size(); ++i) {
        const std::string& level = levels[i];
        if (level == ">" && i + 1 == levels.size()) {
            levels_.push_back({Kind::Rest, std::string()});
        } else if (level == "*") {
            levels_.push_back({Kind::AnyLevel, std::string()});
        } else if (!level.empty() && level.back() == '*') {
            levels_.push_back({Kind::Prefix, level.substr(0, level.size() - 1)});
        } else {
            levels_.push_back({Kind::Literal, level});
        }
    }
}

bool TopicMatcher::matches(const std::string& topic) const {
    size_t pos = 0;  // start of the current topic level
    bool exhausted = topic.empty();
    for (const Level& level : levels_) {
        if (exhausted) {
            return false;
        }
        if (level.kind == Kind::Rest) {
            return true;  // at least one level remains, which is all ">" needs
        }
        size_t end = topic.find('/', pos);
        const bool last = end == std::string::npos;
        if (last) {
            end = topic.size();
        }
        const size_t length = end - pos;
        switch (level.kind) {
            case Kind::Literal:
                if (length != level.text.size() || topic.compare(pos, length, level.text) != 0) {
                    return false;
                }
                break;
            case Kind::Prefix:
                if (length < level.text.size() ||
                    topic.compare(pos, level.text.size(), level.text) != 0) {
                    return false;
                }
                break;
            case Kind::AnyLevel:
            case Kind::Rest:
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

}  // namespace solemu
