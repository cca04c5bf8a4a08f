// Whole-file reads and writes through a store's streams, in 1 MiB pieces, and items
// addressed below a folder: what the demo and the benchmark do over and over.
#pragma once

#include <foundation/storage/provider/StorageItem.hpp>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace ovl {

// The item at `path` (one or more segments) below `folder`, on the same provider.
foundation::storage::provider::StorageItem below(foundation::storage::provider::StorageItem const& folder,
                                                 std::u16string const& path);

// Opens `file` (creating or emptying it), writes `content`, closes it.
void writeWhole(foundation::storage::provider::StorageItem const& file, std::string const& content);

// Reads `file` from start to end, handing each piece to `consume`; returns the bytes read.
std::uint64_t readWhole(foundation::storage::provider::StorageItem const& file,
                        std::function<void(char const*, std::size_t)> const& consume);
// The whole content of `file`.
std::string readWhole(foundation::storage::provider::StorageItem const& file);

// ASCII text as UTF-16 (names the programs make up themselves).
std::u16string ascii16(std::string const& text);

}  // namespace ovl
