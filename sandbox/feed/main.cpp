// pkgd-feed: the sandbox feed's test PKI, packages (honest or hostile) and signed index.
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "sandbox/feed/index.hpp"
#include "sandbox/feed/package.hpp"
#include "sandbox/feed/pki.hpp"

namespace {

using namespace sandbox::feed;
namespace fs = std::filesystem;

constexpr const char* kUsage = R"(usage:
  pkgd-feed pki DIR
      a test CA, a signer and an HTTPS server certificate (127.0.0.1, localhost) it certifies, an
      expired signer, and an untrusted CA and signer: NAME.pem and NAME.key (0600) in DIR
  pkgd-feed package OUT.ipk --control FILE --pki DIR [--tree DIR] [--scripts DIR] [--dot-slash]
                    [--hostile KIND] [--bomb-mib N]
      a package signed by DIR's signer; --scripts DIR holds maintainer scripts (postinst, prerm ...);
      --dot-slash names the members "./x"; KIND is one of: bad-digest unsigned untrusted-signer
      expired-signer name-mismatch dotdot-member absolute-member link-member gzip-bomb
      (the bomb expands to --bomb-mib MiB, default 4096)
  pkgd-feed index FEED_DIR --pki DIR
      Packages, Packages.gz and Packages.sig for the *.ipk in FEED_DIR
)";

// Beside a package whose own control cannot describe it in the index (name-mismatch, gzip-bomb):
// the control the index is to show.
constexpr std::string_view kIndexControlSuffix = ".index-control";

int usage(std::string_view problem) {
    if (!problem.empty()) std::fprintf(stderr, "pkgd-feed: %.*s\n", static_cast<int>(problem.size()), problem.data());
    std::fputs(kUsage, stderr);
    return 2;
}

std::string read_file(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw FeedError("cannot read " + path.string());
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

void write_file(const fs::path& path, std::string_view bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    out.close();
    if (!out) throw FeedError("cannot write " + path.string());
}

// "--name value" pairs and flags after the operand.
struct Options {
    std::vector<std::pair<std::string, std::string>> values;
    std::vector<std::string> flags;
    std::string get(std::string_view name) const {
        for (const auto& [k, v] : values)
            if (k == name) return v;
        return {};
    }
    bool has(std::string_view name) const { return std::find(flags.begin(), flags.end(), name) != flags.end(); }
};

bool parse_options(int argc, char** argv, int first, const std::vector<std::string_view>& valued,
                   const std::vector<std::string_view>& flags, Options& out, std::string& problem) {
    for (int i = first; i < argc; ++i) {
        std::string_view word = argv[i];
        if (std::find(flags.begin(), flags.end(), word) != flags.end()) {
            out.flags.emplace_back(word);
        } else if (std::find(valued.begin(), valued.end(), word) != valued.end() && i + 1 < argc) {
            out.values.emplace_back(word, argv[++i]);
        } else {
            problem = "bad option or missing value: " + std::string(word);
            return false;
        }
    }
    return true;
}

int package_command(const fs::path& out, const Options& o) {
    if (o.get("--control").empty() || o.get("--pki").empty()) return usage("package needs --control and --pki");
    PackageSpec spec;
    spec.control = read_file(o.get("--control"));
    if (!o.get("--tree").empty()) spec.tree = load_tree(o.get("--tree"));
    if (!o.get("--scripts").empty()) {
        for (const TreeEntry& e : load_tree(o.get("--scripts")))
            if (e.kind == TreeEntry::Kind::file) spec.scripts[e.path] = e.data;
    }
    spec.dot_slash_names = o.has("--dot-slash");
    if (std::string kind = o.get("--hostile"); !kind.empty()) {
        auto parsed = parse_hostile(kind);
        if (!parsed) return usage("unknown hostile kind: " + kind);
        spec.hostile = *parsed;
    }
    if (std::string mib = o.get("--bomb-mib"); !mib.empty()) {
        try {
            spec.bomb_bytes = std::stoull(mib) << 20;
        } catch (const std::exception&) {
            return usage("--bomb-mib wants a number: " + mib);
        }
    }
    Package pkg = build_package(spec, load_pki(o.get("--pki")));
    write_file(out, pkg.bytes);
    fs::path sidecar = out.string() + std::string(kIndexControlSuffix);
    if (spec.hostile == Hostile::name_mismatch || spec.hostile == Hostile::gzip_bomb) {
        write_file(sidecar, pkg.index_control);
    } else {
        std::error_code ec;
        fs::remove(sidecar, ec);
    }
    return 0;
}

int index_command(const fs::path& feed, const Options& o) {
    if (o.get("--pki").empty()) return usage("index needs --pki");
    Pki pki = load_pki(o.get("--pki"));
    std::vector<fs::path> packages;
    for (const auto& entry : fs::directory_iterator(feed))
        if (entry.path().extension() == ".ipk" && entry.is_regular_file()) packages.push_back(entry.path());
    std::sort(packages.begin(), packages.end());
    std::vector<std::string> records;
    for (const fs::path& p : packages) {
        const std::string bytes = read_file(p);
        fs::path sidecar = p.string() + std::string(kIndexControlSuffix);
        std::string control;
        try {
            control = fs::exists(sidecar) ? read_file(sidecar) : read_package_control(bytes);
        } catch (const FeedError& e) {
            throw FeedError(p.string() + ": " + e.what());
        }
        std::uint64_t installed = 0;
        if (!fs::exists(sidecar) && control_field(control, "Installed-Size").empty()) installed = read_installed_size(bytes);
        records.push_back(index_record(control, p.filename().string(), bytes, installed));
    }
    write_index(feed, index_text(records), pki.signer);
    std::printf("%zu packages in %s\n", records.size(), (feed / "Packages").c_str());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) return usage("");
    std::string_view command = argv[1];
    fs::path operand = argv[2];
    Options o;
    std::string problem;
    try {
        if (command == "pki") {
            if (argc != 3) return usage("pki takes only a directory");
            save_pki(make_pki(), operand);
            return 0;
        }
        if (command == "package") {
            if (!parse_options(argc, argv, 3, {"--control", "--tree", "--scripts", "--pki", "--hostile", "--bomb-mib"},
                               {"--dot-slash"}, o, problem))
                return usage(problem);
            return package_command(operand, o);
        }
        if (command == "index") {
            if (!parse_options(argc, argv, 3, {"--pki"}, {}, o, problem)) return usage(problem);
            return index_command(operand, o);
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "pkgd-feed: %s\n", e.what());
        return 1;
    }
    return usage("unknown command: " + std::string(command));
}
