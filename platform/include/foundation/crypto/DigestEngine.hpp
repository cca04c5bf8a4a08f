// An incremental message digest: feed bytes with `update`, take the result with
// `digest`.
//
// An engine is not thread-safe; use one per thread (creating one is cheap).
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace foundation::crypto {

class DigestEngine {
 public:
  virtual ~DigestEngine() = default;

  // Appends `size` bytes at `data` to the message. `data` may be null when `size` is 0.
  virtual void update(void const* data, std::size_t size) = 0;
  void update(std::string const& bytes) { update(bytes.data(), bytes.size()); }
  void update(std::vector<unsigned char> const& bytes) { update(bytes.data(), bytes.size()); }

  // The digest of everything fed since construction or the last `digest`/`reset`
  // (digestSize() bytes). The engine then starts a new, empty message with the same
  // key and parameters.
  virtual std::vector<unsigned char> digest() = 0;

  // Discards the bytes fed so far; the engine starts a new, empty message.
  virtual void reset() = 0;

  // Length of the digest in bytes (64 for BLAKE2b).
  virtual std::size_t digestSize() const = 0;
};

}  // namespace foundation::crypto
