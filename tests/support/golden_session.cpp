#include "golden_session.hpp"

#include <fstream>
#include <sstream>
#include <stdexcept>

namespace golden {

std::string dir() { return PKGD_GOLDEN_DIR; }

std::string path(std::string_view file) { return dir() + "/" + std::string(file); }

namespace {
std::vector<std::string> lines_of(std::string_view file) {
    std::ifstream in(path(file));
    if (!in) throw std::runtime_error("cannot open golden file " + path(file));
    std::vector<std::string> out;
    for (std::string l; std::getline(in, l);) out.push_back(l);
    return out;
}

int nibble(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    throw std::runtime_error(std::string("bad hex digit ") + c);
}

void put_utf8(std::string& out, unsigned cp) {
    if (cp < 0x80) {
        out += static_cast<char>(cp);
    } else if (cp < 0x800) {
        out += static_cast<char>(0xc0 | (cp >> 6));
        out += static_cast<char>(0x80 | (cp & 0x3f));
    } else if (cp < 0x10000) {
        out += static_cast<char>(0xe0 | (cp >> 12));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3f));
        out += static_cast<char>(0x80 | (cp & 0x3f));
    } else {
        out += static_cast<char>(0xf0 | (cp >> 18));
        out += static_cast<char>(0x80 | ((cp >> 12) & 0x3f));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3f));
        out += static_cast<char>(0x80 | (cp & 0x3f));
    }
}
}  // namespace

std::vector<std::uint8_t> unhex(std::string_view h) {
    std::vector<std::uint8_t> out;
    std::string digits;
    for (char c : h)
        if (c != ' ' && c != '|') digits += c;
    if (digits.size() % 2) throw std::runtime_error("odd hex length");
    for (std::size_t i = 0; i < digits.size(); i += 2)
        out.push_back(static_cast<std::uint8_t>(nibble(digits[i]) << 4 | nibble(digits[i + 1])));
    return out;
}

std::string hex(const std::uint8_t* p, std::size_t n) {
    static const char* d = "0123456789abcdef";
    std::string s;
    s.reserve(n * 2);
    for (std::size_t i = 0; i < n; ++i) {
        s += d[p[i] >> 4];
        s += d[p[i] & 15];
    }
    return s;
}

std::vector<Step> read_session(std::string_view file) {
    std::vector<Step> steps;
    int no = 0;
    for (const std::string& l : lines_of(file)) {
        ++no;
        if (l.empty() || l[0] == '#') continue;
        std::istringstream is(l);
        std::string a, b, c, d;
        is >> a >> b >> c >> d;
        if (a == "@") {
            steps.push_back({c == "connect" ? Step::Connect : Step::Close, b, {}, false, no});
        } else if (b == ">" || b == "<") {
            steps.push_back({b == ">" ? Step::ToBroker : Step::FromBroker, a, unhex(c), d == "fd", no});
        }
    }
    return steps;
}

std::vector<std::string> capture_ids(std::string_view file) {
    std::vector<std::string> ids;
    bool in_ids = false;
    for (const std::string& l : lines_of(file)) {
        if (l.rfind("# ids in this capture", 0) == 0) {
            in_ids = true;
            continue;
        }
        if (!in_ids) continue;
        if (l.rfind("#  ", 0) != 0) break;
        // "#   object "demo" = 9a1af886, type 4403977e"
        std::string word;
        std::istringstream is(l);
        while (is >> word) {
            while (!word.empty() && (word.back() == ',')) word.pop_back();
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
    for (auto& [k, v] : lines)
        if (k == key) return true;
    return false;
}

std::vector<Case> read_cases(std::string_view file) {
    std::vector<Case> cases;
    for (const std::string& l : lines_of(file)) {
        if (l.empty() || l[0] == '#') continue;
        const auto sp = l.find(' ');
        std::string key = l.substr(0, sp);
        std::string rest = sp == std::string::npos ? "" : l.substr(sp + 1);
        if (key == "case") {
            cases.push_back({rest, {}});
        } else if (!cases.empty()) {
            cases.back().lines.emplace_back(std::move(key), std::move(rest));
        }
    }
    return cases;
}

std::string unquote(std::string_view s) {
    std::string out;
    if (s.size() < 2 || s.front() != '"' || s.back() != '"') throw std::runtime_error("not a literal");
    for (std::size_t i = 1; i + 1 < s.size(); ++i) {
        char c = s[i];
        if (c != '\\') {
            out += c;
            continue;
        }
        char e = s[++i];
        switch (e) {
        case 'n': out += '\n'; break;
        case 't': out += '\t'; break;
        case 'r': out += '\r'; break;
        case 'b': out += '\b'; break;
        case 'f': out += '\f'; break;
        case '/': out += '/'; break;
        case '\\': out += '\\'; break;
        case '"': out += '"'; break;
        case 'u': {
            unsigned cp = 0;
            for (int k = 0; k < 4; ++k) cp = cp * 16 + static_cast<unsigned>(nibble(s[++i]));
            if (cp >= 0xd800 && cp < 0xdc00 && i + 6 < s.size() && s[i + 1] == '\\' && s[i + 2] == 'u') {
                unsigned lo = 0;
                for (int k = 0; k < 4; ++k) lo = lo * 16 + static_cast<unsigned>(nibble(s[i + 3 + k]));
                cp = 0x10000 + ((cp - 0xd800) << 10) + (lo - 0xdc00);
                i += 6;
            }
            put_utf8(out, cp);
            break;
        }
        default: throw std::runtime_error("bad escape");
        }
    }
    return out;
}

}  // namespace golden
