#include "foundation/crypto/cryptopp/CryptoProvider.hpp"

#include <cryptopp/blake2.h>

#include <stdexcept>

namespace foundation::crypto::cryptopp {

namespace {

class Blake2bDigestEngine final : public DigestEngine {
 public:
  Blake2bDigestEngine(std::vector<unsigned char> const& key,
                      std::vector<unsigned char> const& salt,
                      std::vector<unsigned char> const& personalization)
      : hash_(key.data(), key.size(), salt.data(), salt.size(), personalization.data(),
              personalization.size()) {}

  void update(void const* data, std::size_t size) override {
    if (size != 0) hash_.Update(static_cast<CryptoPP::byte const*>(data), size);
  }

  // Crypto++'s Final restarts the hash with the same key and parameters.
  std::vector<unsigned char> digest() override {
    std::vector<unsigned char> out(hash_.DigestSize());
    hash_.Final(out.data());
    return out;
  }

  void reset() override { hash_.Restart(); }

  std::size_t digestSize() const override { return hash_.DigestSize(); }

 private:
  CryptoPP::BLAKE2b hash_;
};

void checkLength(std::vector<unsigned char> const& bytes, std::size_t max, char const* what) {
  if (bytes.size() > max) {
    throw std::invalid_argument(std::string("BLAKE2b ") + what + " longer than " +
                                std::to_string(max) + " bytes");
  }
}

}  // namespace

std::string const& CryptoProvider::name() const {
  static std::string const kName = "Crypto++";
  return kName;
}

std::unique_ptr<DigestEngine> CryptoProvider::createBlake2bDigestEngine(
    std::vector<unsigned char> const& key, std::vector<unsigned char> const& salt,
    std::vector<unsigned char> const& personalization) const {
  checkLength(key, CryptoPP::BLAKE2b::MAX_KEYLENGTH, "key");
  checkLength(salt, CryptoPP::BLAKE2b::SALTSIZE, "salt");
  checkLength(personalization, CryptoPP::BLAKE2b::PERSONALIZATIONSIZE, "personalization");
  return std::make_unique<Blake2bDigestEngine>(key, salt, personalization);
}

}  // namespace foundation::crypto::cryptopp
