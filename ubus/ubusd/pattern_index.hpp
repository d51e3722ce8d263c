// Event listeners by name pattern.
#pragma once

#include <algorithm>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace ubusd {

// Patterns compare bytes. One ending in '*' matches every name that starts with the text before
// the '*' ("*" alone matches everything); any other pattern, including one with a '*' elsewhere,
// matches only the identical name. Matching a name costs one lookup per prefix length of the
// name rather than a scan of every registered pattern.
template <typename Listener>
class PatternIndex {
public:
    // Returns false when the listener already has this pattern.
    bool add(std::string_view pattern, Listener l) {
        auto& list = slot(pattern);
        if (std::find(list.begin(), list.end(), l) != list.end()) return false;
        list.push_back(l);
        return true;
    }

    void remove(std::string_view pattern, Listener l) {
        Map& m = is_prefix(pattern) ? prefix_ : exact_;
        auto it = m.find(stem(pattern));
        if (it == m.end()) return;
        std::erase(it->second, l);
        if (it->second.empty()) m.erase(it);
    }

    bool empty() const { return exact_.empty() && prefix_.empty(); }

    // Calls f(listener) once for every registered pattern that matches `name`: a listener with
    // several matching patterns is seen several times.
    template <typename F>
    void for_each_match(std::string_view name, F&& f) const {
        if (auto it = exact_.find(name); it != exact_.end())
            for (const Listener& l : it->second) f(l);
        if (prefix_.empty()) return;
        for (std::size_t n = 0; n <= name.size(); ++n) {
            auto it = prefix_.find(name.substr(0, n));
            if (it == prefix_.end()) continue;
            for (const Listener& l : it->second) f(l);
        }
    }

private:
    using Map = std::map<std::string, std::vector<Listener>, std::less<>>;

    static bool is_prefix(std::string_view p) { return !p.empty() && p.back() == '*'; }
    static std::string_view stem(std::string_view p) { return is_prefix(p) ? p.substr(0, p.size() - 1) : p; }

    std::vector<Listener>& slot(std::string_view pattern) {
        Map& m = is_prefix(pattern) ? prefix_ : exact_;
        auto it = m.find(stem(pattern));
        if (it == m.end()) it = m.emplace(std::string(stem(pattern)), std::vector<Listener>{}).first;
        return it->second;
    }

    Map exact_;
    Map prefix_;  // keyed by the text before the '*'
};

}  // namespace ubusd
