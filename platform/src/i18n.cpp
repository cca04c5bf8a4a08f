#include "fl/i18n.hpp"

#include <unicode/uchar.h>
#include <unicode/ustring.h>
#include <unicode/utypes.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>

namespace fl::i18n {

namespace {

constexpr char kSurrogateSuffix[] = " encountered while trying to encode UTF-32";
constexpr char kSequenceSuffix[] = " encountered while trying to encode UTF-32 sequence";

bool isHigh(char16_t u) { return u >= 0xD800 && u <= 0xDBFF; }
bool isLow(char16_t u) { return u >= 0xDC00 && u <= 0xDFFF; }

[[noreturn]] void misplacedSurrogate(char16_t unit, char const* suffix) {
  char hex[8];
  std::snprintf(hex, sizeof hex, "%04X", static_cast<unsigned>(unit));
  throw internal_runtime_error(std::string("Misplaced UTF-16 surrogate U+") + hex + suffix);
}

// Walks `text` code point by code point and hands each to `emit`. The ends are checked
// before anything is emitted, so a string with a bad end produces no partial output.
template <class Emit>
void decodeUtf16(std::u16string const& text, char const* suffix, Emit&& emit) {
  if (!text.empty()) {
    if (isHigh(text.back())) misplacedSurrogate(text.back(), suffix);
    if (isLow(text.front())) misplacedSurrogate(text.front(), suffix);
  }
  for (std::size_t i = 0; i < text.size(); ++i) {
    char32_t const u = text[i];
    if (isHigh(u)) {
      if (i + 1 == text.size() || !isLow(text[i + 1])) misplacedSurrogate(u, suffix);
      emit(0x10000 + ((u - 0xD800) << 10) + (text[i + 1] - 0xDC00));
      ++i;
    } else if (isLow(u)) {
      misplacedSurrogate(u, suffix);
    } else {
      emit(u);
    }
  }
}

void appendUtf8(std::string& out, char32_t cp) {
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (cp >> 18));
    out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

[[noreturn]] void invalidUtf8(std::string const& text, std::size_t offset) {
  char detail[64];
  std::snprintf(detail, sizeof detail, "Invalid UTF-8 byte 0x%02X at byte offset %zu",
                static_cast<unsigned>(static_cast<unsigned char>(text[offset])), offset);
  throw conversion_error(detail, offset);
}

}  // namespace

conversion_error::conversion_error(std::string const& what, std::size_t offset)
    : std::runtime_error(what), offset_(offset) {}

std::string to_string(std::u16string const& text) {
  std::string out;
  out.reserve(text.size());
  decodeUtf16(text, kSurrogateSuffix, [&out](char32_t cp) { appendUtf8(out, cp); });
  return out;
}

std::string ustring_to_utf8(std::u16string const& text) { return to_string(text); }

std::u32string to_utf32_sequence(std::u16string const& text) {
  std::u32string out;
  out.reserve(text.size());
  decodeUtf16(text, kSequenceSuffix, [&out](char32_t cp) { out += cp; });
  return out;
}

std::u16string to_ustring(std::string const& text) {
  std::u16string out;
  out.reserve(text.size());
  std::size_t i = 0;
  while (i < text.size()) {
    auto const byte = [&text](std::size_t k) { return static_cast<unsigned char>(text[k]); };
    unsigned char const lead = byte(i);
    if (lead < 0x80) {
      out += static_cast<char16_t>(lead);
      ++i;
      continue;
    }
    std::size_t length;
    char32_t cp;
    // Bounds on the second byte exclude overlong forms, surrogates and values above
    // U+10FFFF (Unicode, table 3-7).
    unsigned char low = 0x80, high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
      length = 2;
      cp = lead & 0x1F;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
      length = 3;
      cp = lead & 0x0F;
      if (lead == 0xE0) low = 0xA0;
      if (lead == 0xED) high = 0x9F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
      length = 4;
      cp = lead & 0x07;
      if (lead == 0xF0) low = 0x90;
      if (lead == 0xF4) high = 0x8F;
    } else {
      invalidUtf8(text, i);
    }
    if (i + length > text.size()) invalidUtf8(text, i);
    for (std::size_t k = 1; k < length; ++k) {
      unsigned char const c = byte(i + k);
      bool const ok = k == 1 ? (c >= low && c <= high) : (c >= 0x80 && c <= 0xBF);
      if (!ok) invalidUtf8(text, i);
      cp = (cp << 6) | (c & 0x3F);
    }
    if (cp < 0x10000) {
      out += static_cast<char16_t>(cp);
    } else {
      cp -= 0x10000;
      out += static_cast<char16_t>(0xD800 + (cp >> 10));
      out += static_cast<char16_t>(0xDC00 + (cp & 0x3FF));
    }
    i += length;
  }
  return out;
}

std::size_t to_lower(std::u16string_view text, char16_t* dest, std::size_t capacity) {
  if (text.size() > static_cast<std::size_t>(INT32_MAX)) {
    throw internal_runtime_error("String too long for lower-casing");
  }
  UErrorCode status = U_ZERO_ERROR;
  int32_t const cap = static_cast<int32_t>(std::min<std::size_t>(capacity, INT32_MAX));
  // "" selects the root locale: no Turkish or Lithuanian special cases.
  int32_t const needed = u_strToLower(cap == 0 ? nullptr : dest, cap, text.data(),
                                      static_cast<int32_t>(text.size()), "", &status);
  if (U_FAILURE(status) && status != U_BUFFER_OVERFLOW_ERROR) {
    throw internal_runtime_error(std::string("Lower-casing failed: ") + u_errorName(status));
  }
  return static_cast<std::size_t>(needed);
}

std::u16string to_lower(std::u16string const& text) {
  std::u16string out(text.size(), u'\0');
  std::size_t needed = to_lower(text, out.data(), out.size());
  if (needed > out.size()) {
    out.assign(needed, u'\0');
    needed = to_lower(text, out.data(), out.size());
  }
  out.resize(needed);
  return out;
}

}  // namespace fl::i18n
