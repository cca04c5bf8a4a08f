// Entry point for cryptographic services: hands out digest engines from a shared back
// end.
//
//   foundation::crypto::CryptoEngine engine(
//       std::make_shared<foundation::crypto::cryptopp::CryptoProvider>());
//   auto blake = engine.createDigestEngine(foundation::crypto::DigestAlgorithm::BLAKE2b);
//   blake->update(bytes);
//   std::vector<unsigned char> hash = blake->digest();
//
// A CryptoEngine is immutable after construction and thread-safe; the engines it
// creates are not (one per thread).
#pragma once

#include "foundation/crypto/DigestAlgorithm.hpp"
#include "foundation/crypto/DigestEngine.hpp"
#include "foundation/crypto/ICryptoProvider.hpp"

#include <memory>
#include <vector>

namespace foundation::crypto {

class CryptoEngine {
 public:
  // Throws std::invalid_argument if `provider` is null.
  explicit CryptoEngine(std::shared_ptr<ICryptoProvider const> provider);

  // An engine for `algorithm` with default parameters (unkeyed).
  std::unique_ptr<DigestEngine> createDigestEngine(DigestAlgorithm algorithm) const;

  // A BLAKE2b engine (64-byte digest); see ICryptoProvider::createBlake2bDigestEngine.
  // Called with two empty vectors it equals createDigestEngine(DigestAlgorithm::BLAKE2b).
  std::unique_ptr<DigestEngine> createBlake2bDigestEngine(
      std::vector<unsigned char> const& key, std::vector<unsigned char> const& salt,
      std::vector<unsigned char> const& personalization = {}) const;

  ICryptoProvider const& provider() const { return *provider_; }

 private:
  std::shared_ptr<ICryptoProvider const> const provider_;
};

}  // namespace foundation::crypto
