// Package verification: the package is unpacked in-process into the working directory (only the
// expected members, as plain files, within size bounds; the data archive is digested on the way
// instead of written), then its checksum list must carry a valid signature chaining to the
// device's trust anchor, the two inner archives must have the listed SHA-256 digests, and the
// control file must name the package the feed described.
#include <archive.h>
#include <archive_entry.h>
#include <dirent.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/pkcs7.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <vector>

#include "pkgd/engine_parts.hpp"
#include "pkgd/text.hpp"
#include "ubus/fd.hpp"

namespace pkgd {
namespace {

template <auto Free>
struct deleter {
    template <typename T>
    void operator()(T* p) const {
        Free(p);
    }
};
using archive_ptr = std::unique_ptr<archive, deleter<archive_read_free>>;
using dir_ptr = std::unique_ptr<DIR, deleter<closedir>>;
using bio_ptr = std::unique_ptr<BIO, deleter<BIO_free>>;
using x509_ptr = std::unique_ptr<X509, deleter<X509_free>>;
using store_ptr = std::unique_ptr<X509_STORE, deleter<X509_STORE_free>>;
using pkcs7_ptr = std::unique_ptr<PKCS7, deleter<PKCS7_free>>;
using md_ctx_ptr = std::unique_ptr<EVP_MD_CTX, deleter<EVP_MD_CTX_free>>;

constexpr std::array<std::string_view, 5> kMembers{"debian-binary", "control.tar.gz", "data.tar.gz",
                                                   "checksum.sha256", "checksum.sig"};
constexpr std::array<std::string_view, 5> kCleanupA{"checksum.sha256", "checksum.sig", "control.tar.gz",
                                                    "data.tar.gz", "debian-binary"};
constexpr std::array<std::string_view, 7> kCleanupB{
    "checksum.sha256", "checksum.sig",       "control.tar.gz", "control.tar.gz.sha256",
    "data.tar.gz",     "data.tar.gz.sha256", "debian-binary"};
constexpr std::string_view kControlDir = "template_PKG_control";

// Removes everything inside the directory `dir_fd` refers to, never following a link: an earlier,
// interrupted verification (or a hostile archive) must leave nothing that a check could take.
void empty_directory(int dir_fd) {
    const int listing_fd = ::dup(dir_fd);
    if (listing_fd < 0) return;
    const dir_ptr dir(::fdopendir(listing_fd));
    if (!dir) {
        ::close(listing_fd);
        return;
    }
    std::vector<std::string> names;
    while (const dirent* e = ::readdir(dir.get())) {
        const std::string_view name = e->d_name;
        if (name != "." && name != "..") names.emplace_back(name);
    }
    for (const std::string& name : names) {
        struct stat st {};
        if (::fstatat(dir_fd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
        if (S_ISDIR(st.st_mode)) {
            const ubus::UniqueFd sub(
                ::openat(dir_fd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
            if (sub) empty_directory(sub.get());
            ::unlinkat(dir_fd, name.c_str(), AT_REMOVEDIR);
        } else {
            ::unlinkat(dir_fd, name.c_str(), 0);
        }
    }
}

template <std::size_t N>
void clean_up(int dir_fd, const std::array<std::string_view, N>& names) {
    for (std::string_view name : names) ::unlinkat(dir_fd, std::string(name).c_str(), 0);
}

// The member's name when it is one of `wanted` ("./" before it allowed), else empty.
template <std::size_t N>
std::string_view wanted_member(archive_entry* entry, const std::array<std::string_view, N>& wanted) {
    const char* path = archive_entry_pathname(entry);
    if (!path || archive_entry_filetype(entry) != AE_IFREG || archive_entry_hardlink(entry)) return {};
    std::string_view name = path;
    if (package_opkg_str_starts_with(name, "./")) name.remove_prefix(2);
    for (std::string_view w : wanted)
        if (name == w) return w;
    return {};
}

archive_ptr open_gzip_tar(const std::string& path) {
    archive_ptr a(archive_read_new());
    if (!a) return a;
    archive_read_support_filter_gzip(a.get());
    archive_read_support_format_tar(a.get());
    if (archive_read_open_filename(a.get(), path.c_str(), 64 * 1024) != ARCHIVE_OK) a.reset();
    return a;
}

enum class Unpack { done, bomb };

constexpr std::string_view kDataArchive = "data.tar.gz";
constexpr std::string_view kControlArchive = "control.tar.gz";

// The SHA-256 of the two inner archives, taken while they stream past: the data archive, the
// bulk of a package, is digested and never written, so it is neither written out nor read back.
struct StreamDigests {
    std::optional<std::string> data;
    std::optional<std::string> control;
};

// The lowercase hex text of a finished digest; nothing when it cannot be finished.
std::optional<std::string> finish_hex(EVP_MD_CTX* md) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int len = 0;
    if (EVP_DigestFinal_ex(md, digest, &len) != 1) return std::nullopt;
    static constexpr char kHex[] = "0123456789abcdef";
    std::string hex;
    for (unsigned int i = 0; i < len; ++i) {
        hex += kHex[digest[i] >> 4];
        hex += kHex[digest[i] & 15];
    }
    return hex;
}

// Copies the current member to `out` (when it is open) and into `md` (when given); false when
// the archive or the write fails, with `bomb` set once more than `limit` bytes came out in all.
bool stream_member(archive* a, int out, EVP_MD_CTX* md, std::vector<char>& buffer, std::uint64_t& total,
                   std::uint64_t limit, bool& bomb) {
    for (;;) {
        const la_ssize_t n = archive_read_data(a, buffer.data(), buffer.size());
        if (n < 0) return false;
        if (n == 0) return true;
        total += static_cast<std::uint64_t>(n);
        if (total > limit) {
            bomb = true;
            return false;
        }
        if (out >= 0 && ::write(out, buffer.data(), static_cast<std::size_t>(n)) != n) return false;
        if (md && EVP_DigestUpdate(md, buffer.data(), static_cast<std::size_t>(n)) != 1) return false;
    }
}

// Writes the expected members of the package into the working directory, except the data archive,
// which is only digested (as is the control archive). A damaged archive ends the unpacking quietly
// (the checks then fail on what is missing), as an unpacking tool would; more bytes than `limit`
// make it a bomb. A member named twice counts as its last copy, as a file written over would.
Unpack unpack_members(const std::string& package_path, int dir_fd, std::uint64_t limit, StreamDigests& digests) {
    const archive_ptr a = open_gzip_tar(package_path);
    if (!a) return Unpack::done;
    std::uint64_t total = 0;
    bool bomb = false;
    std::vector<char> buffer(64 * 1024);
    archive_entry* entry = nullptr;
    while (archive_read_next_header(a.get(), &entry) == ARCHIVE_OK) {
        const std::string_view name = wanted_member(entry, kMembers);
        if (name.empty()) continue;  // skipped unread: links, devices, "..", absolute paths, strangers
        std::optional<std::string>* digest =
            name == kDataArchive ? &digests.data : name == kControlArchive ? &digests.control : nullptr;
        if (digest) digest->reset();
        ubus::UniqueFd out;
        if (name != kDataArchive) {
            out = ubus::UniqueFd(::openat(dir_fd, std::string(name).c_str(),
                                          O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
            if (!out) return Unpack::done;
        }
        const md_ctx_ptr md(digest ? EVP_MD_CTX_new() : nullptr);
        if (digest && (!md || EVP_DigestInit_ex(md.get(), EVP_sha256(), nullptr) != 1)) return Unpack::done;
        if (!stream_member(a.get(), out ? out.get() : -1, md.get(), buffer, total, limit, bomb))
            return bomb ? Unpack::bomb : Unpack::done;
        if (digest) *digest = finish_hex(md.get());
    }
    return Unpack::done;
}

std::string member_path(const std::string& dir, std::string_view name) {
    return std::string(dir).append("/").append(name);
}

// PKCS#7 detached signature over the exact bytes of the checksum list, by a signer whose
// certificate (inside the signature) chains to the first certificate of the trust anchor and is
// valid at the system's current time.
bool signature_valid(const engine_paths& paths, std::time_t now) {
    const store_ptr store(X509_STORE_new());
    if (!store) return false;
    const bio_ptr anchor_bio(BIO_new_file(paths.trust_anchor.c_str(), "r"));
    if (!anchor_bio) return false;
    const x509_ptr anchor(PEM_read_bio_X509(anchor_bio.get(), nullptr, nullptr, nullptr));
    if (!anchor || X509_STORE_add_cert(store.get(), anchor.get()) != 1) return false;
    X509_VERIFY_PARAM_set_time(X509_STORE_get0_param(store.get()), now);

    const bio_ptr sig_bio(BIO_new_file(member_path(paths.work_dir, "checksum.sig").c_str(), "rb"));
    if (!sig_bio) return false;
    const pkcs7_ptr p7(PEM_read_bio_PKCS7(sig_bio.get(), nullptr, nullptr, nullptr));
    if (!p7) return false;
    const bio_ptr content(BIO_new_file(member_path(paths.work_dir, "checksum.sha256").c_str(), "rb"));
    if (!content) return false;
    return PKCS7_verify(p7.get(), nullptr, store.get(), content.get(), nullptr, PKCS7_BINARY) == 1;
}

bool digests_match(const engine_paths& paths, const StreamDigests& digests) {
    const std::optional<std::string> list = read_text_file(member_path(paths.work_dir, "checksum.sha256"));
    if (!list || !digests.data || !digests.control) return false;
    const auto listed = read_checksum_digests(*list);
    return listed[0] == *digests.data && listed[1] == *digests.control;
}

// The control check's result: 2 (an unpacking tool's "fatal error") when the control archive
// cannot be read, 0 when it has no control file, else the name comparison.
int control_matches(const engine_paths& paths, std::string_view name) {
    ::mkdir(member_path(paths.work_dir, kControlDir).c_str(), 0755);
    const archive_ptr a = open_gzip_tar(member_path(paths.work_dir, "control.tar.gz"));
    if (!a) return 2;
    static constexpr std::array<std::string_view, 1> kControl{"control"};
    archive_entry* entry = nullptr;
    for (;;) {
        const int r = archive_read_next_header(a.get(), &entry);
        if (r == ARCHIVE_EOF) return 0;
        if (r != ARCHIVE_OK) return 2;
        if (wanted_member(entry, kControl).empty()) continue;
        std::string text(kControlFileMax + 1, '\0');
        std::size_t size = 0;
        for (;;) {
            const la_ssize_t n = archive_read_data(a.get(), text.data() + size, text.size() - size);
            if (n < 0) return 2;
            if (n == 0) break;
            size += static_cast<std::size_t>(n);
            if (size > kControlFileMax) return -1;  // no control file is that big: refuse it
        }
        text.resize(size);
        return check_control_name(text, name);
    }
}

}  // namespace

std::uint64_t outer_extract_limit(std::uint64_t package_size) {
    return 2 * package_size + kMemberMargin;
}

std::array<std::optional<std::string>, 2> read_checksum_digests(std::string_view text) {
    std::array<std::optional<std::string>, 2> digests;
    LineReader lines(text);
    for (auto& digest : digests) {
        const std::string_view line = lines.next(1023).value_or("");
        const std::size_t space = line.rfind(' ');
        if (space != std::string_view::npos) digest = std::string(line.substr(0, space));
    }
    return digests;
}

int check_control_name(std::string_view control_text, std::string_view name) {
    const std::string_view key = s_opkg_options[0].key;
    LineReader lines(control_text);
    while (const auto piece = lines.next(1023)) {
        std::string_view line = chomp(*piece);
        if (!package_opkg_str_starts_with(line, key)) continue;
        line.remove_prefix(key.size());
        line.remove_prefix(skip_white_space(line));
        if (line != name) return -1;
    }
    return 0;
}

int verify_package(engine_context& ctx, const std::string& package_path, const operation_info& op) {
    if (!op.pkg) return -1;
    return verify_package_file(ctx.paths, ctx.sys.now(), package_path, op.pkg->du.name.value_or(""));
}

int verify_package_file(const engine_paths& paths, std::time_t now, const std::string& package_path,
                        std::string_view name) {
    ::mkdir(paths.work_dir.c_str(), 0700);
    const ubus::UniqueFd dir(::open(paths.work_dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!dir) return -1;
    empty_directory(dir.get());

    struct stat st {};
    const std::uint64_t package_size =
        ::stat(package_path.c_str(), &st) == 0 ? static_cast<std::uint64_t>(st.st_size) : 0;
    StreamDigests digests;
    if (unpack_members(package_path, dir.get(), outer_extract_limit(package_size), digests) == Unpack::bomb ||
        !signature_valid(paths, now)) {
        clean_up(dir.get(), kCleanupA);
        return -1;
    }
    int result = -1;
    if (digests_match(paths, digests)) result = control_matches(paths, name);
    clean_up(dir.get(), kCleanupB);
    return result;
}

}  // namespace pkgd
