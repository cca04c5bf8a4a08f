#include <ovl/ItemIO.hpp>

#include <algorithm>

namespace ovl {

namespace fsp = foundation::storage::provider;

namespace {
constexpr std::size_t kPiece = 1 << 20;
}

fsp::StorageItem below(fsp::StorageItem const& folder, std::u16string const& path) {
  return fsp::StorageItem(folder.getProvider(), fsp::StorageIRI(folder.getLocation(), path));
}

void writeWhole(fsp::StorageItem const& file, std::string const& content) {
  fsp::ByteStreamOpenOptions options;
  options.truncate = true;
  auto stream = file.openStream(options);
  for (std::size_t done = 0; done < content.size();) {
    auto const n = std::min(kPiece, content.size() - done);
    stream->write(content.data() + done, static_cast<long>(n));
    done += n;
  }
  stream->close();
}

std::uint64_t readWhole(fsp::StorageItem const& file, std::function<void(char const*, std::size_t)> const& consume) {
  auto stream = file.openReadOnlyStream();
  std::string buffer(kPiece, '\0');
  std::uint64_t total = 0;
  for (long n; (n = stream->read(buffer.data(), static_cast<long>(buffer.size()))) > 0;) {
    consume(buffer.data(), static_cast<std::size_t>(n));
    total += static_cast<std::uint64_t>(n);
  }
  stream->close();
  return total;
}

std::string readWhole(fsp::StorageItem const& file) {
  std::string content;
  readWhole(file, [&](char const* data, std::size_t n) { content.append(data, n); });
  return content;
}

std::u16string ascii16(std::string const& text) { return std::u16string(text.begin(), text.end()); }

}  // namespace ovl
