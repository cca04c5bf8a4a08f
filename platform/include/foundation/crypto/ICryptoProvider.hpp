// A crypto back end: the factory behind CryptoEngine.
#pragma once

#include "foundation/crypto/DigestEngine.hpp"

#include <memory>
#include <string>
#include <vector>

namespace foundation::crypto {

class ICryptoProvider {
 public:
  virtual ~ICryptoProvider() = default;

  // A short name of the back end, for diagnostics.
  virtual std::string const& name() const = 0;

  // A BLAKE2b engine with a 64-byte digest. `key` (at most 64 bytes) selects keyed
  // hashing; `salt` and `personalization` (at most 16 bytes each) fill the parameter
  // block. Empty vectors mean plain, unkeyed BLAKE2b. Throws std::invalid_argument for
  // an over-long argument. Thread-safe.
  virtual std::unique_ptr<DigestEngine> createBlake2bDigestEngine(
      std::vector<unsigned char> const& key, std::vector<unsigned char> const& salt,
      std::vector<unsigned char> const& personalization) const = 0;
};

}  // namespace foundation::crypto
