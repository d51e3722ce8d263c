// The gateway's memory and storage figures, in kilobytes, as the execution environment reports
// them. Each reader leaves its outputs as they were when the figures cannot be had, so callers
// set them (to 0) first.
#pragma once

#include <cstdint>
#include <istream>
#include <optional>
#include <string_view>

#include "pkgd/system_env.hpp"

namespace pkgd {

// MemTotal and MemFree from /proc/meminfo (of the real system). Only the first two lines are looked at, in that order
// (the kernel has always put these two first); a line that does not carry its figure leaves that
// output alone.
void package_get_sys_memroy(std::int32_t& total, std::int32_t& free);

// Total and free blocks of the file system holding "/", times 4 (kilobytes for 4096-byte blocks;
// the block size it reports is not used). Free blocks include those reserved for the superuser.
// 0, or -1 when the file system could not be queried.
int package_get_sys_storage(std::int32_t& total, std::int32_t& free);

// The same figures of the system `sys` describes (its meminfo text and root file system).
void package_get_sys_memroy(SystemEnv& sys, std::int32_t& total, std::int32_t& free);
int package_get_sys_storage(SystemEnv& sys, std::int32_t& total, std::int32_t& free);

// --- The pure parts, on given input ---

// Reads meminfo text: MemTotal from the first line and MemFree from the second, each line read
// as at most 1023 characters.
void read_meminfo(std::istream& in, std::int32_t& total, std::int32_t& free);

// The decimal number after "`key`:" and optional white space at the start of `line`; nothing
// when the line does not start that way or no digit follows. Values beyond the 32-bit range are
// held at its ends.
std::optional<std::int32_t> meminfo_value(std::string_view line, std::string_view key);

// Storage figures from block counts: each times 4, held at the largest 32-bit value rather than
// wrapping on very large file systems.
void storage_from_blocks(std::uint64_t blocks, std::uint64_t free_blocks, std::int32_t& total,
                         std::int32_t& free);

}  // namespace pkgd
