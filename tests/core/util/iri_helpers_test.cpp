// The mapping from overlay IRIs to physical IRIs: the key of every cached entry and the
// argument of every inner-provider call.
#include <core/util/IRIHelpers.hpp>

#include <fl/i18n.hpp>

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace {

using storage::overlayprovider::getInnerMostURL;
using storage::overlayprovider::getPhysicalURLFromFilteringURL;
using storage::overlayprovider::StorageIRI;
using storage::overlayprovider::stripHostFrom;

std::string text(StorageIRI const& iri) { return iri.toUtf8(); }

std::string strip(char16_t const* iri) { return text(stripHostFrom(StorageIRI(iri))); }
std::string physical(char16_t const* iri) { return text(getPhysicalURLFromFilteringURL(StorageIRI(iri))); }
std::string innermost(char16_t const* iri) { return text(getInnerMostURL(StorageIRI(iri))); }

template <class F>
std::string surrogateError(F&& f) {
  try {
    f();
  } catch (fl::i18n::internal_runtime_error const& e) {
    return e.what();
  }
  return "<no internal_runtime_error>";
}

TEST(IRIHelpersTest, StripHostKeepsSchemeAndPathOnly) {
  EXPECT_EQ("mem:///a", strip(u"mem://s1/a"));
  EXPECT_EQ("file:///x/y", strip(u"file://host:8080/x/y?q=1#frag"));
  EXPECT_EQ("sftp:///p/q", strip(u"sftp://user@host/p/q"));
  EXPECT_EQ("file:///", strip(u"file://host"));
  // Not resolved: that is getInnerMostURL's job.
  EXPECT_EQ("mem:///a/../b/", strip(u"mem://s1/a/../b/"));
  // A wrapped IRI keeps its scheme and outer path; the inner IRI is gone.
  EXPECT_EQ("overlay:///docs/a", strip(u"overlay:<file:///srv/>/docs/a"));
  // Non-ASCII text survives the trip through UTF-8, including a surrogate pair.
  EXPECT_EQ(u"file:///d\u00e9j\u00e0/\U0001F600", stripHostFrom(StorageIRI(u"file://h/d\u00e9j\u00e0/\U0001F600")).toString());
}

TEST(IRIHelpersTest, FilteringSchemeKeepsWhatFollowsTheLastPlus) {
  EXPECT_EQ("file:///data/x", physical(u"sync+file:///data/x"));
  EXPECT_EQ("file:///x", physical(u"a+b+file:///x"));
  // The rest of the text is kept as it is: authority, query, fragment, inner IRI.
  EXPECT_EQ("mem://s1/a?q#f", physical(u"sync+mem://s1/a?q#f"));
  EXPECT_EQ("overlay:<file:///x/>/y", physical(u"cache+overlay:<file:///x/>/y"));

  // No "+": the argument itself.
  StorageIRI const plain(u"file://host/data/x?q");
  EXPECT_EQ(plain, getPhysicalURLFromFilteringURL(plain));
  // Nothing usable after the "+": never throws, returns the argument.
  StorageIRI const dangling(u"sync+:///x");
  EXPECT_EQ(dangling, getPhysicalURLFromFilteringURL(dangling));
  StorageIRI const wrappedDangling(u"sync+", StorageIRI(u"file:///"), u"/x");
  EXPECT_EQ(wrappedDangling, getPhysicalURLFromFilteringURL(wrappedDangling));
}

TEST(IRIHelpersTest, InnerMostOfAPlainIRIDropsHostQueryAndFragmentAndResolves) {
  EXPECT_EQ("mem:///a/c", innermost(u"mem://S1/a/./b/../c/?q=1#frag"));
  EXPECT_EQ("mem:///a", innermost(u"MEM://h/a"));
  EXPECT_EQ("file:///data/x", innermost(u"sync+file://host/data/x/"));
  EXPECT_EQ("file:///x", innermost(u"a+b+file:///x"));
  EXPECT_EQ("file:///", innermost(u"file://host/.."));
}

TEST(IRIHelpersTest, InnerMostOfANestedIRI) {
  // Innermost path "/": the innermost IRI without its host, with the outer path. The
  // paths of intermediate levels are not used.
  EXPECT_EQ("file:///srv/a", innermost(u"overlay:<file://host/>/srv/a"));
  EXPECT_EQ("mem:///a.txt", innermost(u"overlay:<overlay:<mem://s1/>/mid>/docs/../a.txt"));
  EXPECT_EQ("mem:///", innermost(u"overlay:<overlay:<mem://s1/>/mid>/"));
  // That rule does not look at the outer scheme.
  EXPECT_EQ("mem:///a", innermost(u"cache:<mem://s1/>/a"));
  // Nor does it undo a filtering scheme of the innermost IRI.
  EXPECT_EQ("sync+file:///a", innermost(u"overlay:<sync+file://h/>/a"));

  // Innermost path not "/" and scheme exactly "overlay": the direct inner IRI joined with
  // the outer path, without its host (one store serves one host: an s3 bucket).
  EXPECT_EQ("file:///srv/data/docs/a.txt", innermost(u"overlay:<file://host/srv/data/>/docs/a.txt"));
  EXPECT_EQ("s3:///work/a.txt", innermost(u"overlay:<s3://bucket/work/>/a.txt"));
  EXPECT_EQ("file:///srv/data/b", innermost(u"overlay:<file:///srv/data>/docs/../b"));
  EXPECT_EQ("overlay:<mem://s1/base>/mid/a", innermost(u"overlay:<overlay:<mem://s1/base>/mid>/a"));

  // Any other scheme (the comparison is case-sensitive): the outer IRI, only resolved.
  EXPECT_EQ("cache:<file:///srv/data>/y", innermost(u"cache:<file:///srv/data>/x/../y"));
  EXPECT_EQ("overlay:<file:///srv/data>/y", innermost(u"Overlay:<file:///srv/data>/x/../y"));
}

TEST(IRIHelpersTest, UnpairedHighSurrogateAtTheEndOfSchemeOrPathFails) {
  std::u16string path = u"file:///a";
  path += char16_t(0xD800);
  StorageIRI const badPath(path);
  EXPECT_EQ("Misplaced UTF-16 surrogate U+D800 encountered while trying to encode UTF-32",
            surrogateError([&] { stripHostFrom(badPath); }));
  EXPECT_EQ("Misplaced UTF-16 surrogate U+D800 encountered while trying to encode UTF-32",
            surrogateError([&] { getInnerMostURL(badPath); }));

  // A scheme cannot carry a surrogate: StorageIRI accepts only ASCII letters, digits,
  // "+", "-" and "." there, so the path is where stripHostFrom meets them.
  std::u16string scheme = u"ov";
  scheme += char16_t(0xDBFF);
  EXPECT_THROW(StorageIRI(scheme, StorageIRI(u"file:///"), u"/x"), std::invalid_argument);

  // A well-formed pair at the end is fine; a lone high surrogate inside is not either.
  EXPECT_NO_THROW(stripHostFrom(StorageIRI(u"file:///a\U0001F600")));
  std::u16string inside = u"mem://s1/a";
  inside += char16_t(0xDBFF);
  inside += u"/b";
  EXPECT_EQ("Misplaced UTF-16 surrogate U+DBFF encountered while trying to encode UTF-32",
            surrogateError([&] { stripHostFrom(StorageIRI(inside)); }));

  // In a nested IRI the innermost one is stripped: its surrogate fails the lookup.
  StorageIRI const nested(u"overlay", StorageIRI(u"file:///"), std::u16string(u"/a") + char16_t(0xDBFF));
  EXPECT_EQ("<no internal_runtime_error>", surrogateError([&] { getInnerMostURL(nested); }))
      << "the outer path is only joined, never converted";
}

}  // namespace
