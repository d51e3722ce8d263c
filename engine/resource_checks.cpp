#include "pkgd/engine_parts.hpp"
#include "pkgd/text.hpp"

namespace pkgd {

int package_opkg_get_sys_mem(std::int32_t size, SystemEnv& sys) {
    if (size < 0) return 1;
    const std::optional<std::string> meminfo = sys.meminfo();
    if (!meminfo) return 1;
    constexpr std::string_view key = "MemAvailable:";
    LineReader lines(*meminfo);
    while (const auto piece = lines.next(63)) {
        const std::string_view line = chomp(*piece);
        if (!package_opkg_str_starts_with(line, key)) continue;
        const std::int64_t available_kib = leading_decimal(line.substr(key.size()));
        // One kibibyte beyond the package itself, so a package never takes the last of it.
        return available_kib <= std::int64_t{size} / 1024 + 1 ? 1 : 0;
    }
    return 1;  // an old kernel without the figure: no way to tell
}

int package_opkg_check_disk_size(std::int32_t size, SystemEnv& sys) {
    if (size < 0) return 1;  // a size beyond 2 GiB read as signed: never fits a gateway
    const std::optional<fs_figures> fs = sys.root_fs();
    if (!fs) return 1;
    // The root file system may be at most three quarters full once the package is on it.
    const std::uint64_t limit = fs->block_size * (fs->blocks - fs->blocks / 4);
    const std::uint64_t used_blocks = fs->free_blocks > fs->blocks ? 0 : fs->blocks - fs->free_blocks;
    const std::uint64_t needed = fs->block_size * used_blocks + static_cast<std::uint64_t>(size);
    return limit < needed ? 1 : 0;
}

}  // namespace pkgd
