// Base64 with the URL- and filename-safe alphabet (RFC 4648, section 5).
#pragma once

#include <string>
#include <vector>

namespace foundation::crypto::utils {

// Encodes `bytes` with the alphabet A-Z a-z 0-9 '-' '_', without padding ('=') and
// without line breaks: n bytes give ceil(4n/3) characters. Thread-safe.
std::string base64URLEncode(std::vector<unsigned char> const& bytes);

}  // namespace foundation::crypto::utils
