#include "foundation/crypto/utils/Base64URL.hpp"

#include <cryptopp/base64.h>
#include <cryptopp/filters.h>

namespace foundation::crypto::utils {

std::string base64URLEncode(std::vector<unsigned char> const& bytes) {
  std::string out;
  // Crypto++'s URL encoder writes neither padding nor line breaks.
  CryptoPP::Base64URLEncoder encoder(new CryptoPP::StringSink(out));
  encoder.Put(bytes.data(), bytes.size());
  encoder.MessageEnd();
  return out;
}

}  // namespace foundation::crypto::utils
