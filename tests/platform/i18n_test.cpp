#include "fl/i18n.hpp"

#include <gtest/gtest.h>

#include <string>

namespace {

using fl::i18n::conversion_error;
using fl::i18n::internal_runtime_error;

// Runs `convert` and returns the message of the internal_runtime_error it throws.
template <class F>
std::string surrogateError(F&& convert) {
  try {
    convert();
  } catch (internal_runtime_error const& e) {
    return e.what();
  }
  return "<no internal_runtime_error>";
}

std::size_t badUtf8Offset(std::string const& bytes) {
  try {
    fl::i18n::to_ustring(bytes);
  } catch (conversion_error const& e) {
    EXPECT_NE(std::string(e.what()).find("offset " + std::to_string(e.offset())),
              std::string::npos)
        << e.what();
    return e.offset();
  }
  ADD_FAILURE() << "accepted invalid UTF-8";
  return std::string::npos;
}

TEST(I18nTest, RoundTripsBetweenUtf8AndUtf16) {
  struct Case {
    std::string utf8;
    std::u16string utf16;
  };
  Case const cases[] = {
      {"", u""},
      {"plain/ascii.txt", u"plain/ascii.txt"},
      {std::string("nul\0inside", 10), std::u16string(u"nul\0inside", 10)},
      {"Gr\xC3\xBC\xC3\x9F" "e", u"Gr\u00FC\u00DFe"},
      {"\xE6\x97\xA5\xE6\x9C\xAC", u"\u65E5\u672C"},
      // Outside the BMP: a surrogate pair in UTF-16, four bytes in UTF-8.
      {"a\xF0\x9F\x98\x80z", u"a\U0001F600z"},
      // The edges of each encoded length.
      {"\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF\xF0\x90\x80\x80\xF4\x8F\xBF\xBF",
       u"\u007F\u0080\u07FF\u0800\uFFFF\U00010000\U0010FFFF"},
  };
  for (auto const& c : cases) {
    EXPECT_EQ(c.utf16, fl::i18n::to_ustring(c.utf8)) << c.utf8;
    EXPECT_EQ(c.utf8, fl::i18n::to_string(c.utf16)) << c.utf8;
    EXPECT_EQ(c.utf8, fl::i18n::ustring_to_utf8(c.utf16)) << c.utf8;
  }
  EXPECT_EQ(U"a\U0001F600z\U0010FFFF", fl::i18n::to_utf32_sequence(u"a\U0001F600z\U0010FFFF"));
}

TEST(I18nTest, InvalidUtf8NamesTheOffsetOfTheBadSequence) {
  EXPECT_EQ(2u, badUtf8Offset("ab\x80"));                // stray continuation byte
  EXPECT_EQ(3u, badUtf8Offset("abc\xE2\x82"));           // truncated at the end
  EXPECT_EQ(1u, badUtf8Offset("x\xC3(y"));               // lead byte without continuation
  EXPECT_EQ(0u, badUtf8Offset("\xC0\xAF"));              // overlong '/'
  EXPECT_EQ(0u, badUtf8Offset("\xE0\x80\xAF"));          // overlong, three bytes
  EXPECT_EQ(0u, badUtf8Offset("\xF0\x80\x80\xAF"));      // overlong, four bytes
  EXPECT_EQ(1u, badUtf8Offset("-\xED\xA0\x80"));         // encoded surrogate U+D800
  EXPECT_EQ(0u, badUtf8Offset("\xF4\x90\x80\x80"));      // above U+10FFFF
  EXPECT_EQ(4u, badUtf8Offset("\xF0\x9F\x98\x80\xF5\x80\x80\x80"));
  EXPECT_EQ(0u, badUtf8Offset("\xFF"));
  EXPECT_THROW(fl::i18n::to_ustring("\xFE"), std::runtime_error);
}

TEST(I18nTest, MisplacedSurrogatesAtTheEndsUseTheExactMessages) {
  std::u16string const endsHigh = u"ab" + std::u16string(1, char16_t(0xD800));
  std::u16string const startsLow = std::u16string(1, char16_t(0xDC00)) + u"ab";

  EXPECT_EQ("Misplaced UTF-16 surrogate U+D800 encountered while trying to encode UTF-32",
            surrogateError([&] { fl::i18n::to_string(endsHigh); }));
  EXPECT_EQ("Misplaced UTF-16 surrogate U+DC00 encountered while trying to encode UTF-32",
            surrogateError([&] { fl::i18n::ustring_to_utf8(startsLow); }));
  EXPECT_EQ(
      "Misplaced UTF-16 surrogate U+D800 encountered while trying to encode UTF-32 sequence",
      surrogateError([&] { fl::i18n::to_utf32_sequence(endsHigh); }));
  EXPECT_EQ(
      "Misplaced UTF-16 surrogate U+DC00 encountered while trying to encode UTF-32 sequence",
      surrogateError([&] { fl::i18n::to_utf32_sequence(startsLow); }));

  // Upper-case hexadecimal; a bad end is found before a bad start.
  EXPECT_EQ("Misplaced UTF-16 surrogate U+DBFF encountered while trying to encode UTF-32",
            surrogateError([] { fl::i18n::to_string(std::u16string{0xDC00, u'x', 0xDBFF}); }));
  // Callers that know only std::runtime_error still catch it.
  EXPECT_THROW(fl::i18n::to_string(endsHigh), std::runtime_error);
}

TEST(I18nTest, UnpairedSurrogatesInsideTheStringAreErrorsToo) {
  EXPECT_EQ("Misplaced UTF-16 surrogate U+D83D encountered while trying to encode UTF-32",
            surrogateError([] { fl::i18n::to_string(std::u16string{u'a', 0xD83D, u'b'}); }));
  EXPECT_EQ("Misplaced UTF-16 surrogate U+DE0A encountered while trying to encode UTF-32",
            surrogateError([] { fl::i18n::to_string(std::u16string{u'a', 0xDE0A, u'b'}); }));
  // Two high surrogates in a row: the first has no partner.
  EXPECT_EQ(
      "Misplaced UTF-16 surrogate U+D83D encountered while trying to encode UTF-32 sequence",
      surrogateError([] {
        fl::i18n::to_utf32_sequence(std::u16string{u'a', 0xD83D, 0xD83D, 0xDE00});
      }));
}

TEST(I18nTest, LowerCasingIsFullUnicodeInTheRootLocale) {
  EXPECT_EQ(u"\u00E4bc", fl::i18n::to_lower(u"\u00C4BC"));
  EXPECT_EQ(u"some/path/file.txt", fl::i18n::to_lower(u"Some/PATH/File.TXT"));
  EXPECT_EQ(u"", fl::i18n::to_lower(u""));
  // Root locale: plain I becomes i, not the Turkish dotless i.
  EXPECT_EQ(u"istanbul", fl::i18n::to_lower(u"ISTANBUL"));
  // Length changes: capital I with dot above becomes i + combining dot.
  EXPECT_EQ(u"i\u0307x", fl::i18n::to_lower(u"\u0130x"));
  // Context: capital sigma at the end of a word becomes final sigma.
  EXPECT_EQ(u"\u03C3\u03B1\u03C2", fl::i18n::to_lower(u"\u03A3\u0391\u03A3"));
  // Outside the BMP (Deseret).
  EXPECT_EQ(u"\U00010428", fl::i18n::to_lower(u"\U00010400"));
}

TEST(I18nTest, LowerCasingIntoACallersBufferReportsTheFullLength) {
  char16_t buffer[4];
  EXPECT_EQ(3u, fl::i18n::to_lower(u"ABC", buffer, 4));
  EXPECT_EQ(u"abc", std::u16string(buffer, 3));
  EXPECT_EQ(4u, fl::i18n::to_lower(u"A\u0130B", buffer, 4));  // exactly fits
  EXPECT_EQ(u"ai\u0307b", std::u16string(buffer, 4));
  EXPECT_EQ(6u, fl::i18n::to_lower(u"\u0130\u0130\u0130", buffer, 4));  // too small
  EXPECT_EQ(6u, fl::i18n::to_lower(u"\u0130\u0130\u0130", nullptr, 0));
}

}  // namespace
