#include <core/util/LocationIndex.hpp>

#include <fl/i18n.hpp>

#include <array>
#include <functional>
#include <string>

namespace storage::overlayprovider {

std::size_t lowerCaseHashOf(std::u16string_view text) {
  std::array<char16_t, 1024> buffer;
  if (text.size() <= buffer.size() &&
      std::all_of(text.begin(), text.end(), [](char16_t c) { return c < 0x80; })) {
    // Full lower-casing maps an ASCII character to A-Z -> a-z and leaves every other one
    // as it is, so ASCII text needs no trip through the Unicode library.
    std::transform(text.begin(), text.end(), buffer.begin(),
                   [](char16_t c) { return c >= u'A' && c <= u'Z' ? static_cast<char16_t>(c + (u'a' - u'A')) : c; });
    return std::hash<std::u16string_view>{}(std::u16string_view(buffer.data(), text.size()));
  }
  std::size_t const length = fl::i18n::to_lower(text, buffer.data(), buffer.size());
  if (length <= buffer.size()) return std::hash<std::u16string_view>{}(std::u16string_view(buffer.data(), length));
  std::u16string exact(length, u'\0');
  fl::i18n::to_lower(text, exact.data(), exact.size());
  return std::hash<std::u16string>{}(exact);
}

}  // namespace storage::overlayprovider
