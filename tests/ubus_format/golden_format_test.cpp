// The message format against the vendored captures: building, validity, policy parsing, JSON
// loading and JSON formatting, byte for byte.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "golden_session.hpp"
#include "ubus/blob.hpp"
#include "ubus/json.hpp"

namespace {

using ubus::Attr;
using ubus::BlobBuf;
using ubus::Bytes;

// Splits a case line into words; a quoted string literal (which may hold spaces and escaped
// quotes) stays one word.
std::vector<std::string> words(const std::string& s) {
    std::vector<std::string> out;
    for (std::size_t i = 0; i < s.size(); ++i) {
        if (s[i] == ' ') continue;
        const bool quoted = s[i] == '"';
        std::size_t j = i;
        while (++j < s.size() && s[j] != (quoted ? '"' : ' '))
            if (quoted && s[j] == '\\') ++j;
        j += quoted;  // the closing quote
        out.push_back(s.substr(i, j - i));
        i = j;
    }
    return out;
}

std::vector<golden::Case> cases(std::string_view file) {
    auto c = golden::read_cases(file);
    EXPECT_FALSE(c.empty()) << file;
    return c;
}

BlobBuf build(const golden::Case& c) {
    BlobBuf b;
    std::vector<std::size_t> open;
    for (const auto& [key, rest] : c.lines) {
        const auto w = words(rest);
        const std::string name = w.size() > 1 ? golden::unquote(w[1]) : "";
        const std::string& type = w.empty() ? key : w[0];
        if (key == "open") open.push_back(type == "table" ? b.open_table(name) : b.open_array(name));
        if (key == "close") {
            b.close(open.back());
            open.pop_back();
        }
        if (key != "add") continue;
        if (type == "int8") b.add_u8(name, static_cast<std::uint8_t>(std::stoi(w.at(2))));
        if (type == "int16") b.add_i16(name, static_cast<std::int16_t>(std::stoi(w.at(2))));
        if (type == "int32") b.add_i32(name, static_cast<std::int32_t>(std::stoll(w.at(2))));
        if (type == "int64") b.add_i64(name, std::stoll(w.at(2)));
        if (type == "double") b.add_double(name, std::stod(w.at(2)));
        if (type == "string") b.add_string(name, golden::unquote(w.at(2)));
        if (type == "unspec") b.add_unspec(name);
    }
    EXPECT_TRUE(open.empty());
    return b;
}

// Compares the compact and indented output for a whole buffer (root header included).
void expect_json(const golden::Case& c, Bytes buffer) {
    const Attr root = Attr::at(buffer);
    std::string compact, indented;
    ubus::json_format_list(compact, root);
    ubus::json_format_list(indented, root, ubus::JsonFormat::indented());
    EXPECT_EQ(c.has("compact_hex")
                  ? golden::hex(reinterpret_cast<const std::uint8_t*>(compact.data()), compact.size())
                  : compact,
              c.get(c.has("compact_hex") ? "compact_hex" : "compact"));
    EXPECT_EQ(indented, golden::unquote(c.get("indent")));
}

TEST(GoldenBlobmsg, BuiltBuffersMatchByteForByteAndFormat) {
    for (const auto& c : cases("blobmsg_build.txt")) {
        SCOPED_TRACE(c.name);
        const BlobBuf b = build(c);
        EXPECT_EQ(golden::hex(b.root_bytes()), c.get("hex"));
        expect_json(c, b.root_bytes());
        EXPECT_EQ(ubus::json_format(b), c.get("compact"));
    }
}

TEST(GoldenBlobmsg, ValidityOfSingleAttributesAndFormattingOfBadMembers) {
    int checked = 0;
    for (const auto& c : cases("blobmsg_validity.txt")) {
        SCOPED_TRACE(c.name);
        // An exactly sized copy, so a read past the attribute is caught by the sanitizers.
        const auto bytes = golden::unhex(c.get("hex"));
        if (!c.has("valid_in_array")) {
            expect_json(c, bytes);
            continue;
        }
        const Attr a = Attr::at(bytes);
        EXPECT_EQ(a.valid(false), c.get("valid_in_array") == "1");
        EXPECT_EQ(a.valid(true), c.get("valid_in_table") == "1");
        ++checked;
    }
    EXPECT_GT(checked, 20);
}

TEST(GoldenBlobmsg, PolicyParsing) {
    for (const auto& c : cases("blobmsg_parse.txt")) {
        SCOPED_TRACE(c.name);
        const auto bytes = golden::unhex(c.get("hex"));
        std::vector<std::string> names;  // the policy keeps views of them
        std::vector<ubus::Policy> policy;
        for (const auto& entry : words(c.get("policy"))) names.push_back(entry.substr(0, entry.rfind(':')));
        for (const auto& entry : words(c.get("policy")))
            policy.push_back({names[policy.size()],
                              static_cast<ubus::Type>(std::stoi(entry.substr(entry.rfind(':') + 1)))});
        std::vector<Attr> out(policy.size());
        EXPECT_EQ(ubus::parse(policy, bytes, out), std::stoi(c.get("ret")));

        std::vector<std::string> got, expected;
        for (std::size_t i = 0; i < out.size(); ++i)
            got.push_back((names[i].empty() ? "\"\"" : names[i]) + " " +
                          (out[i] ? "@" + std::to_string(out[i].ptr() - bytes.data()) : "absent"));
        for (const auto& [key, rest] : c.lines)
            if (key == "result") expected.push_back(rest);
        EXPECT_EQ(got, expected);
    }
}

TEST(GoldenJson, LoadingTextAndFilesAndFormattingThemBack) {
    using Load = bool (*)(BlobBuf&, const golden::Case&);
    const Load text = [](BlobBuf& b, const golden::Case& c) {
        return ubus::json_load(b, golden::unquote(c.get("json")));
    };
    const Load file = [](BlobBuf& b, const golden::Case& c) {
        return ubus::json_load_file(b, golden::path(c.get("file")));
    };
    for (const auto& [capture, load] :
         {std::pair{"json_to_blobmsg.txt", text}, std::pair{"json_file_load.txt", file}}) {
        for (const auto& c : cases(capture)) {
            SCOPED_TRACE(c.name);
            BlobBuf b;
            EXPECT_EQ(load(b, c), c.get("ok") == "1");
            EXPECT_EQ(golden::hex(b.root_bytes()), c.get("hex"));
            expect_json(c, b.root_bytes());
        }
    }
}

}  // namespace
