// StorageIRI: text form, nesting, joining, resolution, the path queries, ordering, network
// IRIs and malformed input.
#include <foundation/storage/provider/StorageIRI.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <unordered_set>
#include <vector>

namespace fsp = foundation::storage::provider;
using fsp::StorageIRI;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

std::u16string text(StorageIRI const& iri) { return iri.toString(); }

std::string invalidArgument(std::u16string const& input) {
  try {
    StorageIRI iri(input);
    ADD_FAILURE() << "parsed: " << iri;
  } catch (std::invalid_argument const& e) {
    return e.what();
  }
  return {};
}

TEST(StorageIRITest, PlainTextRoundTripsWithItsComponents) {
  StorageIRI file(u"file:///a/b");
  EXPECT_EQ(file.getScheme(), u"file");
  EXPECT_TRUE(file.hasAuthority());
  EXPECT_EQ(file.getAuthority(), u"");
  EXPECT_EQ(file.getPath(), u"/a/b");
  EXPECT_FALSE(file.getQuery().has_value());
  EXPECT_FALSE(file.getFragment().has_value());
  EXPECT_FALSE(file.hasInnerIRI());
  EXPECT_THROW(file.getInnerIRI(), std::logic_error);

  StorageIRI mem(u"mem://s1/x?q=1&r=/2#top?not-a-query");
  EXPECT_EQ(mem.getAuthority(), u"s1");
  EXPECT_EQ(mem.getPath(), u"/x");
  EXPECT_EQ(mem.getQuery(), u"q=1&r=/2");
  EXPECT_EQ(mem.getFragment(), u"top?not-a-query");

  StorageIRI fragmentOnly(u"mem://s1/x#f");
  EXPECT_FALSE(fragmentOnly.getQuery().has_value());
  EXPECT_EQ(fragmentOnly.getFragment(), u"f");
  StorageIRI emptyQuery(u"mem://s1/x?");
  EXPECT_EQ(emptyQuery.getQuery(), u"");

  for (std::u16string const canonical :
       {u"file:///a/b", u"mem://s1/x", u"mem://s1/x?q=1#f", u"mem://s1/x?", u"mem://s1/x#", u"file:///",
        u"sync+file:///x", u"a-b.c9://Host:8080/P/q", u"mem://s1/caf\u00e9/\U0001F600", u"mem://s1/a//b/./../c/",
        u"overlay:<file:///srv/data/>/docs/a.txt", u"overlay:<overlay:<mem://s1/>/>/a"}) {
    StorageIRI const iri(canonical);
    EXPECT_EQ(text(iri), canonical);
    EXPECT_EQ(StorageIRI(iri.toString()), iri);
  }
  // Spellings that read as a canonical form: an empty path is "/", an absent authority
  // is an empty one.
  EXPECT_EQ(text(StorageIRI(u"mem://s1")), u"mem://s1/");
  EXPECT_EQ(text(StorageIRI(u"mem://s1?q")), u"mem://s1/?q");
  EXPECT_EQ(text(StorageIRI(u"mem:")), u"mem:///");
  StorageIRI noAuthority(u"mem:/x");
  EXPECT_EQ(text(noAuthority), u"mem:///x");
  EXPECT_TRUE(noAuthority.hasAuthority());
  EXPECT_EQ(noAuthority, StorageIRI(u"mem:///x"));
  EXPECT_EQ(text(StorageIRI(u"mem:x/y")), u"mem:///x/y");
  EXPECT_EQ(text(StorageIRI()), u"file:///");

  // The "+" scheme is one ordinary scheme.
  StorageIRI plus(u"sync+file:///x/y");
  EXPECT_EQ(plus.getScheme(), u"sync+file");
  EXPECT_EQ(plus.getPath(), u"/x/y");

  // UTF-8 out.
  StorageIRI unicode(u"mem://s1/caf\u00e9");
  EXPECT_EQ(unicode.toUtf8(), "mem://s1/caf\xc3\xa9");
  std::ostringstream out;
  out << unicode;
  EXPECT_EQ(out.str(), "mem://s1/caf\xc3\xa9");
  EXPECT_EQ(StorageIRI(std::u16string(u"mem://s1/a") + char16_t(0xD800)).toUtf8(), "mem://s1/a\xef\xbf\xbd");
}

TEST(StorageIRITest, WrappedIRIsNestAndPeelOneLayerAtATime) {
  StorageIRI one(u"overlay:<file:///srv/data/>/docs/a.txt");
  EXPECT_EQ(one.getScheme(), u"overlay");
  EXPECT_FALSE(one.hasAuthority());
  EXPECT_EQ(one.getPath(), u"/docs/a.txt");
  EXPECT_FALSE(one.getQuery().has_value());
  ASSERT_TRUE(one.hasInnerIRI());
  EXPECT_EQ(text(one.getInnerIRI()), u"file:///srv/data/");
  EXPECT_EQ(one.getInnerIRI().getPath(), u"/srv/data/");
  EXPECT_EQ(one.getName(), u"a.txt");
  EXPECT_EQ(text(one.getParent()), u"overlay:<file:///srv/data/>/docs");
  EXPECT_EQ(text(one.getParent().getParent()), u"overlay:<file:///srv/data/>/");
  EXPECT_FALSE(one.getParent().getParent().hasParent());

  StorageIRI two(u"overlay:<overlay:<mem://s1/>/>/a");
  EXPECT_EQ(text(two.getInnerIRI()), u"overlay:<mem://s1/>/");
  EXPECT_EQ(text(two.getInnerIRI().getInnerIRI()), u"mem://s1/");
  EXPECT_FALSE(two.getInnerIRI().getInnerIRI().hasInnerIRI());
}

TEST(StorageIRITest, WrappedIRIsAreBuiltFromTheirParts) {
  StorageIRI built(u"overlay", StorageIRI(u"file:///srv/data/"), u"docs/a.txt");
  EXPECT_EQ(text(built), u"overlay:<file:///srv/data/>/docs/a.txt");
  EXPECT_EQ(built, StorageIRI(u"overlay:<file:///srv/data/>/docs/a.txt"));
  EXPECT_EQ(text(StorageIRI(u"overlay", StorageIRI(u"file:///x"), u"")), u"overlay:<file:///x>/");
  EXPECT_EQ(text(StorageIRI(u"overlay:<file:///x>")), u"overlay:<file:///x>/");
  StorageIRI nested(u"overlay", built, u"/b");
  EXPECT_EQ(text(nested), u"overlay:<overlay:<file:///srv/data/>/docs/a.txt>/b");
  EXPECT_EQ(nested.getInnerIRI(), built);
}

TEST(StorageIRITest, JoiningAddsPathsWithSlashesCollapsed) {
  StorageIRI base(u"mem://s1/a");
  EXPECT_EQ(text(StorageIRI(base, u"b")), u"mem://s1/a/b");
  EXPECT_EQ(text(StorageIRI(base, u"b/c/d.txt")), u"mem://s1/a/b/c/d.txt");
  EXPECT_EQ(text(StorageIRI(base, u"/b")), u"mem://s1/a/b");
  EXPECT_EQ(text(StorageIRI(base, u"//b///c")), u"mem://s1/a/b/c");
  EXPECT_EQ(text(StorageIRI(StorageIRI(u"mem://s1/a/"), u"b")), u"mem://s1/a/b");
  EXPECT_EQ(text(StorageIRI(StorageIRI(u"mem://s1/"), u"x")), u"mem://s1/x");
  EXPECT_EQ(text(StorageIRI(StorageIRI(u"mem://s1/"), u"")), u"mem://s1/");
  // Query and fragment belong to the base only.
  EXPECT_EQ(text(StorageIRI(StorageIRI(u"mem://s1/a?q#f"), u"b")), u"mem://s1/a/b");
  // The inner IRI is kept.
  EXPECT_EQ(text(StorageIRI(StorageIRI(u"overlay:<file:///srv/>/a"), u"b/c")), u"overlay:<file:///srv/>/a/b/c");
  // Joining does not parse: "?" and "#" stay in the path.
  StorageIRI odd(base, u"what?#1");
  EXPECT_EQ(odd.getPath(), u"/a/what?#1");
  EXPECT_FALSE(odd.getQuery().has_value());

  EXPECT_EQ(text(StorageIRI(u"mem://s1/a?q").withPath(u"x//y")), u"mem://s1/x/y");
  EXPECT_EQ(text(StorageIRI(u"overlay:<file:///srv/>/a").withPath(u"/z")), u"overlay:<file:///srv/>/z");

  try {
    StorageIRI bad(base, std::u16string(u"b\u0007c"));
    ADD_FAILURE() << "joined " << bad;
  } catch (std::invalid_argument const& e) {
    EXPECT_THAT(e.what(), HasSubstr("mem://s1/a/b\\u0007c"));
  }
  EXPECT_THROW(base.withPath(std::u16string(u"x\ny")), std::invalid_argument);
}

TEST(StorageIRITest, ResolutionRemovesDotsAndSlashesAndLowerCasesSchemeAndAuthority) {
  std::vector<std::pair<std::u16string, std::u16string>> const cases = {
      {u"mem://s1/a/./b/../c", u"mem://s1/a/c"},
      {u"mem://s1/../../x", u"mem://s1/x"},
      {u"mem://s1/a/b/../../..", u"mem://s1/"},
      {u"mem://s1/a/..", u"mem://s1/"},
      {u"mem://s1//a///b//", u"mem://s1/a/b"},
      {u"mem://s1/a/", u"mem://s1/a"},
      {u"mem://s1/", u"mem://s1/"},
      {u"mem://s1", u"mem://s1/"},
      {u"MEM://S1.Example:80/A/B", u"mem://s1.example:80/A/B"},
      {u"Sync+File:///X", u"sync+file:///X"},
      {u"mem://s1/a/./b?q=./x#f/..", u"mem://s1/a/b?q=./x#f/.."},
      {u"mem://s1/.../a/.b/..c", u"mem://s1/.../a/.b/..c"},
      // A wrapped IRI resolves its outer path only.
      {u"OVERLAY:<FILE:///srv/./x/>/a/../b/", u"overlay:<FILE:///srv/./x/>/b"},
  };
  for (auto const& [input, expected] : cases) {
    auto const resolved = StorageIRI(input).getResolvedIRI();
    EXPECT_EQ(text(resolved), expected) << StorageIRI(input);
    EXPECT_EQ(resolved.getResolvedIRI(), resolved);
  }
  EXPECT_EQ(text(StorageIRI(u"overlay:<mem://s1/>/a/..").getResolvedIRI().getInnerIRI()), u"mem://s1/");
}

TEST(StorageIRITest, ParentNameAndAncestry) {
  StorageIRI root(u"mem://s1/");
  EXPECT_FALSE(root.hasParent());
  EXPECT_EQ(root.getName(), u"");
  EXPECT_THROW(root.getParent(), std::logic_error);
  EXPECT_FALSE(StorageIRI(u"mem://s1//").hasParent());

  StorageIRI trailing(u"mem://s1/a/b/");
  EXPECT_TRUE(trailing.hasParent());
  EXPECT_EQ(trailing.getName(), u"b");
  EXPECT_EQ(text(trailing.getParent()), u"mem://s1/a");
  EXPECT_EQ(text(StorageIRI(u"mem://s1/a?q#f").getParent()), u"mem://s1/");
  EXPECT_EQ(StorageIRI(u"mem://s1/a?q").getName(), u"a");
  EXPECT_THAT(StorageIRI(u"mem://s1//a///b/").getPathView().segments(), ElementsAre(u"a", u"b"));
  std::vector<std::u16string> walked;
  for (auto const& segment : StorageIRI(u"file:///x/y/z").getPathView()) walked.push_back(segment);
  EXPECT_THAT(walked, ElementsAre(u"x", u"y", u"z"));
  EXPECT_TRUE(root.getPathView().empty());

  auto ancestor = [](char16_t const* a, char16_t const* b) { return StorageIRI(a).isAncestorOf(StorageIRI(b)); };
  EXPECT_TRUE(ancestor(u"mem://s1/a", u"mem://s1/a/b"));
  EXPECT_TRUE(ancestor(u"mem://s1/a", u"mem://s1/a/b/c"));
  EXPECT_TRUE(ancestor(u"mem://s1/a/", u"mem://s1/a/b"));
  EXPECT_TRUE(ancestor(u"mem://s1/a", u"mem://s1/a//b"));
  EXPECT_TRUE(ancestor(u"mem://s1/", u"mem://s1/a"));
  EXPECT_FALSE(ancestor(u"mem://s1/a", u"mem://s1/ab"));
  EXPECT_FALSE(ancestor(u"mem://s1/a", u"mem://s1/a"));
  EXPECT_FALSE(ancestor(u"mem://s1/a", u"mem://s1/a/"));
  EXPECT_FALSE(ancestor(u"mem://s1/", u"mem://s1/"));
  EXPECT_FALSE(ancestor(u"mem://s1/a/b", u"mem://s1/a"));
  EXPECT_FALSE(ancestor(u"mem://s1/a", u"mem://s2/a/b"));
  EXPECT_FALSE(ancestor(u"mem://s1/a", u"file://s1/a/b"));
  EXPECT_FALSE(ancestor(u"mem://s1/A", u"mem://s1/a/b"));
  EXPECT_TRUE(ancestor(u"MEM://S1/a", u"mem://s1/a/b"));
  EXPECT_TRUE(ancestor(u"overlay:<file:///srv/>/a", u"overlay:<file:///srv/>/a/b"));
  EXPECT_TRUE(ancestor(u"overlay:<file:///srv/>/", u"overlay:<file:///srv/>/a"));
  EXPECT_FALSE(ancestor(u"overlay:<file:///srv/>/a", u"overlay:<file:///other/>/a/b"));
  EXPECT_FALSE(ancestor(u"overlay:<file:///srv/>/a", u"file:///srv/a/b"));
  EXPECT_FALSE(ancestor(u"file:///srv/a", u"overlay:<file:///srv/>/a/b"));
}

TEST(StorageIRITest, OrdersByTextAsMapAndSetKeys) {
  std::map<StorageIRI, int> map;
  map[StorageIRI(u"mem://s1/b")] = 3;
  map[StorageIRI(u"mem://s1/a/b")] = 2;
  map[StorageIRI(u"mem://s1/a")] = 1;
  map[StorageIRI(u"file:///z")] = 0;
  map[StorageIRI(u"mem://s1/a")] = 10;  // same key
  std::vector<std::u16string> keys;
  for (auto const& [iri, value] : map) keys.push_back(iri.toString());
  EXPECT_THAT(keys, ElementsAre(u"file:///z", u"mem://s1/a", u"mem://s1/a/b", u"mem://s1/b"));
  EXPECT_EQ(map.at(StorageIRI(u"mem://s1/a")), 10);
  // Keys are texts: other spellings are other keys until resolved.
  EXPECT_EQ(map.count(StorageIRI(u"MEM://s1/a")), 0u);
  EXPECT_EQ(map.count(StorageIRI(u"MEM://s1/a/").getResolvedIRI()), 1u);
  // Equal spellings of one canonical text are one key.
  EXPECT_EQ(map.count(StorageIRI(u"mem://s1/a")), 1u);
  EXPECT_EQ(map.count(StorageIRI(StorageIRI(u"mem://s1/"), u"a")), 1u);

  StorageIRI const a(u"mem://s1/a"), b(u"mem://s1/b");
  EXPECT_TRUE(a < b);
  EXPECT_FALSE(b < a);
  EXPECT_FALSE(a < a);
  EXPECT_TRUE(a != b);
  EXPECT_EQ(std::set<StorageIRI>({a, b, a, StorageIRI(u"mem://s1/a")}).size(), 2u);
  std::unordered_set<StorageIRI> hashed{a, b, StorageIRI(u"mem://s1/a")};
  EXPECT_EQ(hashed.size(), 2u);
}

TEST(StorageIRITest, BuildsFromNetworkIRIComponents) {
  using foundation::network::IRI;
  using foundation::network::IRIComponents;
  IRI full(IRIComponents{"http", "user", "Example.com", 8080, "/a b/c\xc3\xa9", "x=1", "top"});
  StorageIRI fromFull(full);
  EXPECT_EQ(fromFull.getScheme(), u"http");
  EXPECT_EQ(fromFull.getAuthority(), u"user@Example.com:8080");
  EXPECT_EQ(fromFull.getPath(), u"/a b/c\u00e9");
  EXPECT_EQ(fromFull.getQuery(), u"x=1");
  EXPECT_EQ(fromFull.getFragment(), u"top");
  EXPECT_EQ(text(fromFull), u"http://user@Example.com:8080/a b/c\u00e9?x=1#top");

  EXPECT_EQ(text(StorageIRI(IRI(IRIComponents{"file", "", "", 0, "/x/y", "", ""}))), u"file:///x/y");
  EXPECT_EQ(text(StorageIRI(IRI(IRIComponents{"mem", "", "s1", 0, "x/y", "", ""}))), u"mem://s1/x/y");
  EXPECT_EQ(text(StorageIRI(IRI(IRIComponents{"mem", "", "s1", 0, "", "", ""}))), u"mem://s1/");
  EXPECT_EQ(text(StorageIRI(IRI(IRIComponents{"mem", "", "", 0, "rel", "", ""}))), u"mem:///rel");
  EXPECT_THROW(StorageIRI(IRI(IRIComponents{"", "", "h", 0, "/x", "", ""})), std::invalid_argument);
}

TEST(StorageIRITest, MalformedTextIsRejectedNamingIt) {
  EXPECT_THAT(invalidArgument(u""), HasSubstr("Malformed IRI \"\": no scheme"));
  EXPECT_THAT(invalidArgument(u"/tmp/x"), HasSubstr("Malformed IRI \"/tmp/x\": no scheme"));
  EXPECT_THAT(invalidArgument(u":x"), HasSubstr("\":x\": no scheme"));
  EXPECT_THAT(invalidArgument(u"1abc:/x"), HasSubstr("\"1abc:/x\": scheme must begin with a letter"));
  EXPECT_THAT(invalidArgument(u"ab c:/x"), HasSubstr("\"ab c:/x\": invalid character in scheme"));
  EXPECT_THAT(invalidArgument(u"caf\u00e9:/x"), HasSubstr("\"caf\xc3\xa9:/x\": invalid character in scheme"));
  EXPECT_THAT(invalidArgument(u"overlay:<file:///x"), HasSubstr("\"overlay:<file:///x\": unbalanced angle brackets"));
  EXPECT_THAT(invalidArgument(u"overlay:<overlay:<file:///x>/a"), HasSubstr("unbalanced angle brackets"));
  EXPECT_THAT(invalidArgument(u"overlay:file:///x>"), HasSubstr("\"overlay:file:///x>\": unbalanced angle brackets"));
  EXPECT_THAT(invalidArgument(u"overlay:<file:///x>>/a"), HasSubstr("unbalanced angle brackets"));
  EXPECT_THAT(invalidArgument(u"mem://s1/a<b"), HasSubstr("\"mem://s1/a<b\""));
  EXPECT_THAT(invalidArgument(u"overlay:<mem://a/>/x/<y>"), HasSubstr("unbalanced angle brackets"));
  // A bad inner IRI is reported with the whole text.
  EXPECT_THAT(invalidArgument(u"overlay:<1x:/a>/b"),
              HasSubstr("Malformed IRI \"overlay:<1x:/a>/b\": inner IRI: Malformed IRI \"1x:/a\""));
  EXPECT_THAT(invalidArgument(u"overlay:<>/b"), HasSubstr("\"overlay:<>/b\": inner IRI"));
  // Control characters, anywhere, are shown where they are.
  EXPECT_THAT(invalidArgument(std::u16string(u"mem://s1/a\u0001b")), HasSubstr("\"mem://s1/a\\u0001b\": control character"));
  EXPECT_THAT(invalidArgument(std::u16string(u"mem://s1/a?q\u007f")), HasSubstr("\"mem://s1/a?q\\u007F\""));
  EXPECT_THAT(invalidArgument(std::u16string(u"me\u0000m://s1/", 10)), HasSubstr("control character"));
  EXPECT_THAT(invalidArgument(std::u16string(u"mem://s1/\ta")), HasSubstr("\\u0009"));

  // Built wrapped IRIs check their parts too.
  EXPECT_THROW(StorageIRI(u"", StorageIRI(u"file:///x"), u"/a"), std::invalid_argument);
  EXPECT_THROW(StorageIRI(u"1x", StorageIRI(u"file:///x"), u"/a"), std::invalid_argument);
  EXPECT_THROW(StorageIRI(u"o o", StorageIRI(u"file:///x"), u"/a"), std::invalid_argument);
  try {
    StorageIRI(u"overlay", StorageIRI(u"file:///x"), std::u16string(u"/a\u001b"));
    ADD_FAILURE() << "built";
  } catch (std::invalid_argument const& e) {
    EXPECT_THAT(e.what(), HasSubstr("overlay:<file:///x>/a\\u001B"));
  }
}

}  // namespace
