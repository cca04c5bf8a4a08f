// The digest algorithms a crypto provider can be asked for.
#pragma once

namespace foundation::crypto {

enum class DigestAlgorithm {
  BLAKE2b,  // BLAKE2b with its full 64-byte (512-bit) digest
};

}  // namespace foundation::crypto
