// Detached PKCS#7 signatures as the gateway checks them: binary content, signer certificate inside.
#pragma once

#include <string>
#include <string_view>

#include "sandbox/feed/pki.hpp"

namespace sandbox::feed {

// A PEM "PKCS7" block signing `content` byte for byte (no line-end conversion), the content
// itself left out and the signer's certificate included.
std::string sign_detached(std::string_view content, const Credential& signer);

// SHA-256 and MD5 of `bytes`, as lower-case hex.
std::string sha256_hex(std::string_view bytes);
std::string md5_hex(std::string_view bytes);

}  // namespace sandbox::feed
