#include <core/content/CacheFileNaming.hpp>

#include <fl/i18n.hpp>
#include <foundation/crypto/CryptoEngine.hpp>
#include <foundation/crypto/cryptopp/CryptoProvider.hpp>
#include <foundation/crypto/utils/Base64URL.hpp>

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid.hpp>
#include <boost/uuid/uuid_io.hpp>

#include <memory>
#include <vector>

namespace storage::overlayprovider {

std::u16string generateUUIDString() {
  boost::uuids::random_generator generator;
  std::string const text = boost::uuids::to_string(generator());
  return std::u16string(text.begin(), text.end());  // hexadecimal digits and '-' only
}

namespace detail {

namespace {

foundation::crypto::CryptoEngine const& cryptoEngine() {
  static foundation::crypto::CryptoEngine const engine(
      std::make_shared<foundation::crypto::cryptopp::CryptoProvider>());
  return engine;
}

}  // namespace

std::u16string computeHashForIRI(foundation::storage::provider::StorageIRI const& location) {
  std::string const utf8 = fl::i18n::ustring_to_utf8(location.toString());
  std::vector<unsigned char> const bytes(utf8.begin(), utf8.end());
  // A digest engine is not thread-safe; the shared crypto engine hands out one per call.
  auto digestEngine = cryptoEngine().createBlake2bDigestEngine({}, {});
  digestEngine->update(bytes);
  std::string const name = foundation::crypto::utils::base64URLEncode(digestEngine->digest());
  return std::u16string(name.begin(), name.end());  // the Base64URL alphabet is ASCII
}

}  // namespace detail
}  // namespace storage::overlayprovider
