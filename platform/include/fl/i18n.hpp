// Conversions between the host's UTF-16 strings (std::u16string) and UTF-8, and a
// Unicode lower-case transform.
//
// Every function here is thread-safe and keeps no state between calls.
//
// UTF-16 validity. The converters from UTF-16 reject ill-formed input with
// `internal_runtime_error`. Before converting, they look at the ends of the string: a
// high surrogate (0xD800-0xDBFF) as the last code unit is reported first, then a low
// surrogate (0xDC00-0xDFFF) as the first code unit. An unpaired surrogate anywhere else
// is reported the same way when the conversion reaches it. The message is
//   "Misplaced UTF-16 surrogate U+XXXX encountered while trying to encode UTF-32"
// where XXXX is the offending code unit in upper-case hexadecimal (4 digits). The
// whole-sequence converter `to_utf32_sequence` ends every such message with
// " encountered while trying to encode UTF-32 sequence" instead; the other converters
// use the shorter text for every position.
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>

namespace fl::i18n {

// The host's internal runtime error: raised for ill-formed UTF-16 input (see above)
// and for failures inside the Unicode library.
class internal_runtime_error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Ill-formed UTF-8 input. `offset()` is the byte offset at which the offending
// sequence starts; the message names it.
class conversion_error : public std::runtime_error {
 public:
  conversion_error(std::string const& what, std::size_t offset);
  std::size_t offset() const noexcept { return offset_; }

 private:
  std::size_t offset_;
};

// UTF-16 -> UTF-8. Throws `internal_runtime_error` on an unpaired surrogate.
std::string to_string(std::u16string const& text);

// The same conversion as `to_string`, under the name callers use when the UTF-8 bytes
// are an encoding step (hashing, file names) rather than display text.
std::string ustring_to_utf8(std::u16string const& text);

// UTF-8 -> UTF-16. Accepts exactly the well-formed UTF-8 of the Unicode standard:
// rejects stray continuation bytes, truncated sequences, overlong forms, encoded
// surrogates and values above U+10FFFF with `conversion_error`. Embedded NULs are kept.
std::u16string to_ustring(std::string const& text);

// UTF-16 -> UTF-32, one element per code point. Throws `internal_runtime_error` on an
// unpaired surrogate, with the "... UTF-32 sequence" message.
std::u32string to_utf32_sequence(std::u16string const& text);

// Full Unicode lower-casing in the root locale (no language-specific rules). The result
// may differ in length from the input: U+0130 (capital I with dot above) becomes
// "i" followed by U+0307. Unpaired surrogates are passed through unchanged.
// Throws `internal_runtime_error` if the Unicode library reports a failure.
std::u16string to_lower(std::u16string const& text);

// The same transform into a caller's buffer. Writes at most `capacity` code units to
// `dest` and returns the length of the full result; if that is larger than `capacity`,
// the contents of `dest` are unspecified and the caller retries with a larger buffer.
// No terminator is written.
std::size_t to_lower(std::u16string_view text, char16_t* dest, std::size_t capacity);

}  // namespace fl::i18n
