#include "session_replay.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <sstream>

namespace ubusd_test {

std::uint32_t hex_id(const std::string& hex) {
    return static_cast<std::uint32_t>(std::stoul(hex, nullptr, 16));
}

golden::Step step(const std::string& line) {
    std::istringstream is(line);
    std::string label, arrow, hex, fd;
    is >> label >> arrow >> hex >> fd;
    return {arrow == ">" ? golden::Step::ToBroker : golden::Step::FromBroker, label, golden::unhex(hex),
            fd == "fd", 0};
}

void SessionReplay::add_ids(const std::vector<std::string>& hex_ids) {
    for (const auto& h : hex_ids) ids_.insert(hex_id(h));
}

void SessionReplay::alias(std::uint32_t id, std::uint32_t same_as) {
    ids_.insert(id);
    aliases_[id] = same_as;
}

std::uint32_t SessionReplay::resolve(std::uint32_t id) const {
    auto a = aliases_.find(id);
    return a == aliases_.end() ? id : a->second;
}

std::vector<std::uint8_t> SessionReplay::substitute(const golden::Step& s) {
    std::vector<std::uint8_t> out = s.bytes;
    for (std::size_t i = 0; i + 4 <= out.size(); i += 4) {
        const std::uint32_t w = ubus::wire::get32(out.data() + i);
        if (!ids_.contains(w)) continue;
        auto it = map_.find(resolve(w));
        if (it == map_.end()) {
            ADD_FAILURE() << "line " << s.line << ": id " << std::hex << w
                          << " used before the broker chose it";
            continue;
        }
        ubus::wire::put32(out.data() + i, it->second);
    }
    return out;
}

void SessionReplay::run(const std::vector<golden::Step>& steps) {
    for (std::size_t i = 0; i < steps.size();) {
        const golden::Step& s = steps[i];
        if (s.kind == golden::Step::ToBroker) {
            // A block: this message and the ones the same connection sends right after it. A
            // descriptor must start its own write, so a message with one ends the block.
            std::vector<const golden::Step*> block{&s};
            ++i;
            while (chunk_ == 0 && !s.fd && i < steps.size() && steps[i].kind == golden::Step::ToBroker &&
                   steps[i].label == s.label && !steps[i].fd)
                block.push_back(&steps[i++]);
            send_block(block);
            if (::testing::Test::HasFatalFailure()) return;
            continue;
        }
        ++i;
        switch (s.kind) {
            case golden::Step::Connect:
                conns_[s.label] = std::make_unique<RawClient>(socket_, false);
                break;
            case golden::Step::Close:
                if (conns_.contains(s.label)) {
                    EXPECT_TRUE(conns_[s.label]->sync().empty()) << "unread frames on " << s.label;
                    conns_.erase(s.label);
                }
                break;
            default:
                // What the broker sends to a connection after it closed (a capture may show it) is
                // not readable.
                if (conns_.contains(s.label)) expect(s);
                break;
        }
        if (::testing::Test::HasFatalFailure()) return;
    }
}

void SessionReplay::send_block(const std::vector<const golden::Step*>& block) {
    RawClient* c = conns_.contains(block[0]->label) ? conns_[block[0]->label].get() : nullptr;
    ASSERT_TRUE(c) << "line " << block[0]->line << ": no connection " << block[0]->label;
    std::vector<std::uint8_t> bytes;
    for (const golden::Step* s : block) {
        const auto msg = substitute(*s);
        bytes.insert(bytes.end(), msg.begin(), msg.end());
    }
    ubus::UniqueFd read_end;
    if (block[0]->fd) {
        // A real pipe, so the far side can prove it got this very descriptor.
        int p[2];
        ASSERT_EQ(::pipe(p), 0);
        read_end.reset(p[0]);
        const std::string token = "passed with line " + std::to_string(block[0]->line);
        ASSERT_EQ(::write(p[1], token.data(), token.size()), static_cast<ssize_t>(token.size()));
        ::close(p[1]);
        fd_tokens_.push_back(token);
    }
    c->send(bytes, read_end.get(), chunk_);
}

void SessionReplay::expect(const golden::Step& s) {
    auto got = conns_[s.label]->read();
    ASSERT_TRUE(got) << "line " << s.line << ": nothing arrived for " << s.label;
    const auto& want = s.bytes;
    ASSERT_EQ(got->bytes.size(), want.size())
        << "line " << s.line << "\n want " << golden::hex(want) << "\n  got " << golden::hex(got->bytes);
    bool same = true;
    for (std::size_t i = 0; i < want.size() && same; i += 4) {
        if (i + 4 > want.size()) {
            same = std::equal(want.begin() + static_cast<std::ptrdiff_t>(i), want.end(),
                              got->bytes.begin() + static_cast<std::ptrdiff_t>(i));
            break;
        }
        const std::uint32_t w = ubus::wire::get32(want.data() + i);
        const std::uint32_t g = ubus::wire::get32(got->bytes.data() + i);
        if (!ids_.contains(w)) {
            same = w == g;
            continue;
        }
        if (auto it = map_.find(resolve(w)); it != map_.end()) {
            same = it->second == g;
        } else {
            for (const auto& [capture, mine] : map_) EXPECT_NE(mine, g) << "id handed out twice";
            map_[resolve(w)] = g;
        }
    }
    EXPECT_TRUE(same) << "line " << s.line << "\n want " << golden::hex(want) << "\n  got "
                      << golden::hex(got->bytes);

    EXPECT_EQ(static_cast<bool>(got->fd), s.fd) << "line " << s.line << ": descriptor";
    if (got->fd && s.fd && !fd_tokens_.empty()) {
        char buf[128];
        const ssize_t n = ::read(got->fd.get(), buf, sizeof(buf));
        EXPECT_EQ(std::string(buf, n > 0 ? static_cast<std::size_t>(n) : 0), fd_tokens_.front())
            << "line " << s.line << ": the descriptor is not the one passed";
        fd_tokens_.pop_front();
    }
}

void SessionReplay::expect_drained() {
    for (auto& [label, c] : conns_) EXPECT_TRUE(c->sync().empty()) << "unread frames on " << label;
}

}  // namespace ubusd_test
