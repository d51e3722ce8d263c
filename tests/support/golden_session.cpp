#include "golden_session.hpp"

#include <json-c/json.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>

namespace golden {

std::string dir() {
    return PKGD_GOLDEN_DIR;
}

std::string path(std::string_view file) {
    return dir() + "/" + std::string(file);
}

namespace {
std::vector<std::string> lines_of(std::string_view file) {
    std::ifstream in(path(file));
    if (!in) throw std::runtime_error("cannot open golden file " + path(file));
    std::vector<std::string> out;
    for (std::string l; std::getline(in, l);) out.push_back(l);
    return out;
}
}  // namespace

std::vector<std::uint8_t> unhex(std::string_view h) {
    std::string digits;
    for (char c : h)
        if (c != ' ' && c != '|') digits += c;
    if (digits.size() % 2) throw std::runtime_error("odd hex length");
    std::vector<std::uint8_t> out;
    for (std::size_t i = 0; i < digits.size(); i += 2) {
        std::size_t used = 0;
        out.push_back(static_cast<std::uint8_t>(std::stoul(digits.substr(i, 2), &used, 16)));
        if (used != 2) throw std::runtime_error("bad hex " + digits.substr(i, 2));
    }
    return out;
}

std::string hex(const std::uint8_t* p, std::size_t n) {
    static const char* d = "0123456789abcdef";
    std::string s;
    for (std::size_t i = 0; i < n; ++i) (s += d[p[i] >> 4]) += d[p[i] & 15];
    return s;
}

std::vector<Step> read_session(std::string_view file) {
    std::vector<Step> steps;
    int no = 0;
    for (const std::string& l : lines_of(file)) {
        ++no;
        if (l.starts_with('#')) continue;
        std::istringstream is(l);
        std::string a, b, c, d;
        is >> a >> b >> c >> d;
        if (a == "@")
            steps.push_back({c == "connect" ? Step::Connect : Step::Close, b, {}, false, no});
        else if (b == ">" || b == "<")
            steps.push_back({b == ">" ? Step::ToBroker : Step::FromBroker, a, unhex(c), d == "fd", no});
    }
    return steps;
}

std::vector<std::string> capture_ids(std::string_view file) {
    // The header lists them as `#   object "demo" = 9a1af886, type 4403977e`, one line each.
    std::vector<std::string> ids;
    bool in_ids = false;
    for (const std::string& l : lines_of(file)) {
        if (in_ids && l.rfind("#  ", 0) != 0) break;
        in_ids = in_ids || l.rfind("# ids in this capture", 0) == 0;
        std::istringstream is(l);
        for (std::string word; in_ids && is >> word;) {
            if (word.back() == ',') word.pop_back();
            if (word.size() == 8 && word.find_first_not_of("0123456789abcdef") == std::string::npos)
                ids.push_back(word);
        }
    }
    return ids;
}

const std::string& Case::get(std::string_view key) const {
    static const std::string empty;
    for (auto& [k, v] : lines)
        if (k == key) return v;
    return empty;
}

bool Case::has(std::string_view key) const {
    return std::ranges::any_of(lines, [&](const auto& kv) { return kv.first == key; });
}

std::vector<Case> read_cases(std::string_view file) {
    std::vector<Case> cases;
    for (const std::string& l : lines_of(file)) {
        if (l.empty() || l[0] == '#') continue;
        const auto sp = l.find(' ');
        std::string key = l.substr(0, sp);
        std::string rest = sp == std::string::npos ? "" : l.substr(sp + 1);
        if (key == "case")
            cases.push_back({rest, {}});
        else if (!cases.empty())
            cases.back().lines.emplace_back(std::move(key), std::move(rest));
    }
    return cases;
}

std::string unquote(std::string_view literal) {
    // json-c decodes it: a reader independent of the bridge the captures are checked against.
    const std::unique_ptr<json_object, decltype(&json_object_put)> v(
        json_tokener_parse(std::string(literal).c_str()), json_object_put);
    if (!v || !json_object_is_type(v.get(), json_type_string))
        throw std::runtime_error("not a string literal: " + std::string(literal));
    return {json_object_get_string(v.get()), static_cast<std::size_t>(json_object_get_string_len(v.get()))};
}

}  // namespace golden
