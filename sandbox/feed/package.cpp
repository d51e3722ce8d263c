#include "sandbox/feed/package.hpp"

#include <array>

#include "archive_writer.hpp"
#include "gzip.hpp"
#include "sandbox/feed/signature.hpp"

namespace sandbox::feed {
namespace {

struct HostileName {
    Hostile kind;
    std::string_view name;
};
constexpr std::array<HostileName, 10> kHostile = {{
    {Hostile::none, "none"},
    {Hostile::bad_digest, "bad-digest"},
    {Hostile::unsigned_package, "unsigned"},
    {Hostile::untrusted_signer, "untrusted-signer"},
    {Hostile::expired_signer, "expired-signer"},
    {Hostile::name_mismatch, "name-mismatch"},
    {Hostile::dotdot_member, "dotdot-member"},
    {Hostile::absolute_member, "absolute-member"},
    {Hostile::link_member, "link-member"},
    {Hostile::gzip_bomb, "gzip-bomb"},
}};

// The control with its "Package:" value replaced.
std::string with_package_name(std::string_view control, std::string_view name) {
    std::string out;
    std::size_t start = 0;
    while (start < control.size()) {
        std::size_t end = control.find('\n', start);
        std::size_t next = end == std::string_view::npos ? control.size() : end + 1;
        std::string_view line = control.substr(start, next - start);
        out += line.starts_with("Package:") ? "Package: " + std::string(name) + "\n" : std::string(line);
        start = next;
    }
    return out;
}

std::string control_archive(const PackageSpec& spec, std::string_view control, std::string_view prefix) {
    ArchiveWriter w(true);
    w.add_file(std::string(prefix) + "control", control);
    for (const auto& [name, text] : spec.scripts) {
        if (name.empty() || name.find('/') != std::string::npos) throw FeedError("bad script name: " + name);
        w.add_file(std::string(prefix) + name, text, 0755);
    }
    return w.finish();
}

std::string data_archive(const Tree& tree, std::string_view prefix, std::uint64_t& installed_size) {
    ArchiveWriter w(true);
    for (const TreeEntry& e : tree) {
        std::string path = std::string(prefix) + e.path;
        switch (e.kind) {
        case TreeEntry::Kind::file:
            w.add_file(path, e.data, e.mode);
            installed_size += e.data.size();
            break;
        case TreeEntry::Kind::directory:
            w.add_directory(path, e.mode);
            break;
        case TreeEntry::Kind::symlink:
            w.add_symlink(path, e.data);
            break;
        }
    }
    return w.finish();
}

const Credential& signer_for(Hostile kind, const Pki& pki) {
    const Credential& c = kind == Hostile::untrusted_signer ? pki.untrusted_signer
                          : kind == Hostile::expired_signer ? pki.expired_signer
                                                            : pki.signer;
    if (c.empty()) throw FeedError("the PKI has no certificate for " + std::string(hostile_name(kind)));
    return c;
}

}  // namespace

std::optional<Hostile> parse_hostile(std::string_view name) {
    for (const auto& h : kHostile)
        if (h.name == name) return h.kind;
    return std::nullopt;
}

std::string_view hostile_name(Hostile kind) {
    for (const auto& h : kHostile)
        if (h.kind == kind) return h.name;
    return "?";
}

std::vector<Hostile> all_hostile() {
    std::vector<Hostile> out;
    for (const auto& h : kHostile)
        if (h.kind != Hostile::none) out.push_back(h.kind);
    return out;
}

Package build_package(const PackageSpec& spec, const Pki& pki) {
    const std::string name = control_field(spec.control, "Package");
    if (name.empty()) throw FeedError("the control text has no \"Package:\" field");
    Package pkg;
    pkg.index_control = spec.control;
    if (!spec.control.ends_with('\n')) pkg.index_control += '\n';
    const std::string_view prefix = spec.dot_slash_names ? "./" : "";

    if (spec.hostile == Hostile::gzip_bomb) {
        pkg.bytes = gzip_bomb(std::string(prefix) + "data.tar.gz", spec.bomb_bytes);
        pkg.installed_size = spec.bomb_bytes;
        return pkg;
    }

    const std::string inner_control =
        spec.hostile == Hostile::name_mismatch ? with_package_name(pkg.index_control, name + "-impostor")
                                               : pkg.index_control;
    const std::string control_tar = control_archive(spec, inner_control, prefix);
    const std::string data_tar = data_archive(spec.tree, prefix, pkg.installed_size);

    std::string data_digest = sha256_hex(data_tar);
    if (spec.hostile == Hostile::bad_digest) data_digest[0] = data_digest[0] == '0' ? '1' : '0';
    const std::string checksums =
        data_digest + " data.tar.gz\n" + sha256_hex(control_tar) + " control.tar.gz\n";

    ArchiveWriter outer(true);
    const std::string p(prefix);
    outer.add_file(p + "debian-binary", "2.0\n");
    outer.add_file(p + "control.tar.gz", control_tar);
    outer.add_file(p + "data.tar.gz", data_tar);
    outer.add_file(p + "checksum.sha256", checksums);
    if (spec.hostile != Hostile::unsigned_package)
        outer.add_file(p + "checksum.sig", sign_detached(checksums, signer_for(spec.hostile, pki)));
    switch (spec.hostile) {
    case Hostile::dotdot_member:
        outer.add_file("../escaped", "escaped through ..\n");
        break;
    case Hostile::absolute_member:
        outer.add_file("/escaped", "escaped through an absolute path\n");
        break;
    case Hostile::link_member:
        outer.add_symlink("escaped-link", "/tmp");
        outer.add_file("escaped-link/escaped", "escaped through a symlink\n");
        break;
    default:
        break;
    }
    pkg.bytes = outer.finish();
    return pkg;
}

}  // namespace sandbox::feed
