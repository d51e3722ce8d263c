// gzip streams: an ordinary one, and a bomb, a few megabytes that inflate to gigabytes.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace sandbox::feed {

std::string gzip(std::string_view bytes);

// A gzip tar holding one member `member` of `size` zero bytes (rounded up to a mebibyte, below
// 8 GiB), built without ever holding or compressing that much.
std::string gzip_bomb(std::string_view member, std::uint64_t size);

}  // namespace sandbox::feed
