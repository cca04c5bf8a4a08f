#include "foundation/crypto/CryptoEngine.hpp"

#include <stdexcept>
#include <string>

namespace foundation::crypto {

CryptoEngine::CryptoEngine(std::shared_ptr<ICryptoProvider const> provider)
    : provider_(std::move(provider)) {
  if (!provider_) throw std::invalid_argument("CryptoEngine needs a crypto provider");
}

std::unique_ptr<DigestEngine> CryptoEngine::createDigestEngine(DigestAlgorithm algorithm) const {
  switch (algorithm) {
    case DigestAlgorithm::BLAKE2b:
      return provider_->createBlake2bDigestEngine({}, {}, {});
  }
  throw std::invalid_argument("Unknown digest algorithm " +
                              std::to_string(static_cast<int>(algorithm)));
}

std::unique_ptr<DigestEngine> CryptoEngine::createBlake2bDigestEngine(
    std::vector<unsigned char> const& key, std::vector<unsigned char> const& salt,
    std::vector<unsigned char> const& personalization) const {
  return provider_->createBlake2bDigestEngine(key, salt, personalization);
}

}  // namespace foundation::crypto
