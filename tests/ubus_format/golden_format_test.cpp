// The message format against the vendored captures: building, validity, policy parsing,
// JSON loading and JSON formatting, byte for byte.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "golden_session.hpp"
#include "ubus/blob.hpp"
#include "ubus/json.hpp"
#include "ubus/wire.hpp"

namespace {

using ubus::Attr;
using ubus::BlobBuf;
using ubus::Bytes;

// Splits a case line into words, keeping a quoted string literal (which may hold spaces and
// escaped quotes) as one word.
std::vector<std::string> words(std::string_view s) {
    std::vector<std::string> out;
    std::size_t i = 0;
    while (i < s.size()) {
        if (s[i] == ' ') {
            ++i;
            continue;
        }
        std::size_t j = i;
        if (s[i] == '"') {
            for (++j; j < s.size() && s[j] != '"'; ++j)
                if (s[j] == '\\') ++j;
            ++j;
        } else {
            while (j < s.size() && s[j] != ' ') ++j;
        }
        out.emplace_back(s.substr(i, j - i));
        i = j;
    }
    return out;
}

std::vector<golden::Case> cases(std::string_view file) {
    auto c = golden::read_cases(file);
    EXPECT_FALSE(c.empty()) << file;
    return c;
}

void add_value(BlobBuf& b, const std::vector<std::string>& w) {
    const std::string name = golden::unquote(w.at(1));
    const std::string& type = w.at(0);
    if (type == "int8")
        b.add_u8(name, static_cast<std::uint8_t>(std::stoi(w.at(2))));
    else if (type == "int16")
        b.add_i16(name, static_cast<std::int16_t>(std::stoi(w.at(2))));
    else if (type == "int32")
        b.add_i32(name, static_cast<std::int32_t>(std::stoll(w.at(2))));
    else if (type == "int64")
        b.add_i64(name, std::stoll(w.at(2)));
    else if (type == "double")
        b.add_double(name, std::stod(w.at(2)));
    else if (type == "string")
        b.add_string(name, golden::unquote(w.at(2)));
    else if (type == "unspec")
        b.add_unspec(name);
    else
        ADD_FAILURE() << "unknown type " << type;
}

BlobBuf build(const golden::Case& c) {
    BlobBuf b;
    std::vector<std::size_t> open;
    for (const auto& [key, rest] : c.lines) {
        const auto w = words(rest);
        if (key == "add") {
            add_value(b, w);
        } else if (key == "open") {
            const std::string name = golden::unquote(w.at(1));
            open.push_back(w.at(0) == "table" ? b.open_table(name) : b.open_array(name));
        } else if (key == "close") {
            b.close(open.back());
            open.pop_back();
        }
    }
    EXPECT_TRUE(open.empty());
    return b;
}

// Compares the compact and indented output for a whole buffer (root header included).
void expect_json(const golden::Case& c, Bytes buffer) {
    const Attr root = Attr::at(buffer);
    std::string compact;
    ubus::json_format_list(compact, root);
    if (c.has("compact_hex"))
        EXPECT_EQ(golden::hex(reinterpret_cast<const std::uint8_t*>(compact.data()), compact.size()),
                  c.get("compact_hex"));
    else
        EXPECT_EQ(compact, c.get("compact"));

    std::string indented;
    ubus::json_format_list(indented, root, ubus::JsonFormat::indented());
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
        if (c.has("valid_in_array")) {
            const Attr a = Attr::at(bytes);
            EXPECT_EQ(a.valid(false), c.get("valid_in_array") == "1");
            EXPECT_EQ(a.valid(true), c.get("valid_in_table") == "1");
            ++checked;
        } else {
            expect_json(c, bytes);
        }
    }
    EXPECT_GT(checked, 20);
}

TEST(GoldenBlobmsg, PolicyParsing) {
    for (const auto& c : cases("blobmsg_parse.txt")) {
        SCOPED_TRACE(c.name);
        const auto bytes = golden::unhex(c.get("hex"));
        std::vector<std::string> names;
        std::vector<ubus::Type> types;
        for (const auto& entry : words(c.get("policy"))) {
            const auto colon = entry.rfind(':');
            names.push_back(entry.substr(0, colon));
            types.push_back(static_cast<ubus::Type>(std::stoi(entry.substr(colon + 1))));
        }
        std::vector<ubus::Policy> policy;
        for (std::size_t i = 0; i < names.size(); ++i) policy.push_back({names[i], types[i]});
        std::vector<Attr> out(policy.size());

        EXPECT_EQ(ubus::parse(policy, bytes, out), std::stoi(c.get("ret")));

        std::size_t i = 0;
        for (const auto& [key, rest] : c.lines) {
            if (key != "result") continue;
            ASSERT_LT(i, out.size());
            const auto w = words(rest);
            EXPECT_EQ(w.at(0), names[i].empty() ? "\"\"" : names[i]);
            const std::string got =
                out[i] ? "@" + std::to_string(out[i].ptr() - bytes.data()) : std::string("absent");
            EXPECT_EQ(got, w.at(1)) << "entry " << i;
            ++i;
        }
        EXPECT_EQ(i, out.size());
    }
}

TEST(GoldenJson, LoadingTextAndFormattingItBack) {
    for (const auto& c : cases("json_to_blobmsg.txt")) {
        SCOPED_TRACE(c.name);
        BlobBuf b;
        EXPECT_EQ(ubus::json_load(b, golden::unquote(c.get("json"))), c.get("ok") == "1");
        EXPECT_EQ(golden::hex(b.root_bytes()), c.get("hex"));
        expect_json(c, b.root_bytes());
    }
}

TEST(GoldenJson, LoadingFiles) {
    for (const auto& c : cases("json_file_load.txt")) {
        SCOPED_TRACE(c.name);
        BlobBuf b;
        EXPECT_EQ(ubus::json_load_file(b, golden::path(c.get("file"))), c.get("ok") == "1");
        EXPECT_EQ(golden::hex(b.root_bytes()), c.get("hex"));
        expect_json(c, b.root_bytes());
    }
}

// `ubus -v list` prints each method of a signature in element form, with the hook that names the
// argument types; the signature here is the one the broker returned in the captured session.
TEST(GoldenJson, ElementFormWithHookPrintsListVerboseLines) {
    Bytes signature;
    ubus::FrameReader reader;
    ubus::Frame frame;
    for (const auto& step : golden::read_session("session_list_verbose.txt")) {
        if (step.kind != golden::Step::FromBroker || step.label != "cli") continue;
        reader.feed(step.bytes);
        ASSERT_EQ(reader.next(frame), ubus::FrameReader::Result::Frame);
        if (frame.hdr.type == ubus::MsgType::Data) {
            signature = frame.attrs()[ubus::kAttrSignature].payload();
            break;
        }
    }
    ASSERT_FALSE(signature.empty());

    ubus::JsonFormat f;
    f.element_hook = ubus::json_type_name_hook;
    std::string lines;
    for (Attr method : ubus::AttrList(signature)) {
        lines += '\t';
        ubus::json_format_element(lines, method, f);
        lines += '\n';
    }

    std::string expected;
    for (const auto& c : cases("cli_transcripts.txt"))
        if (c.name == "list_verbose") expected = golden::unquote(c.get("stdout"));
    ASSERT_NE(expected.find('\n'), std::string::npos);
    EXPECT_EQ(lines, expected.substr(expected.find('\n') + 1));
}

}  // namespace
