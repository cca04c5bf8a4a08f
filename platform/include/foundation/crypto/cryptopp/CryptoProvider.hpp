// The crypto back end built on Crypto++.
#pragma once

#include "foundation/crypto/ICryptoProvider.hpp"

namespace foundation::crypto::cryptopp {

// Stateless and thread-safe; one instance can be shared by any number of engines.
class CryptoProvider final : public ICryptoProvider {
 public:
  // "Crypto++".
  std::string const& name() const override;

  std::unique_ptr<DigestEngine> createBlake2bDigestEngine(
      std::vector<unsigned char> const& key, std::vector<unsigned char> const& salt,
      std::vector<unsigned char> const& personalization) const override;
};

}  // namespace foundation::crypto::cryptopp
