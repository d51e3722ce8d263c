// The feed index's signature: PEM PKCS#7 detached over the uncompressed index, checked against
// the configured trust anchors.
#pragma once

#include <string>
#include <string_view>

namespace opkg {

// Empty result: `signature` is a valid signature over `data` by a certificate that chains to one
// in `ca_file` (or the hashed directory `ca_path`) and is within its validity period. Otherwise
// why it is not.
std::string verify_detached_signature(std::string_view data, std::string_view signature,
                                      const std::string& ca_file, const std::string& ca_path);

}  // namespace opkg
