// The whole rest of a stream's content, read in 4 KiB pieces until a read gives nothing.
#pragma once

#include <foundation/storage/provider/ByteStream.hpp>

#include <cstddef>
#include <string>

namespace support {

inline std::string readAll(foundation::storage::provider::ByteStream& stream) {
  std::string content;
  char buffer[4096];
  for (;;) {
    auto const n = stream.read(buffer, sizeof buffer);
    if (n <= 0) break;
    content.append(buffer, static_cast<std::size_t>(n));
  }
  return content;
}

}  // namespace support
