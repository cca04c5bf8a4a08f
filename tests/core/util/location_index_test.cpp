// Indexed lookups of the metadata cache: exact and case-insensitive matching through
// LocationIndex must give what a walk over every key gives (the first key, in key order,
// with the wanted lower-case hash), after any sequence of insertions and erasures; and
// the cache's shortcut for arguments already in key form must agree with the mapping.
#include "metadata/metadata_test_support.hpp"

#include <core/metadata/IFolderEntry.hpp>
#include <core/util/IRIHelpers.hpp>
#include <core/util/LocationIndex.hpp>
#include <core/metadata/MetadataCache.hpp>

#include <fl/i18n.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace fsp = foundation::storage::provider;
using fsp::StorageIRI;
using fsp::StorageItem;
using metadata_test::MemStore;
using storage::overlayprovider::FileMetadata;
using storage::overlayprovider::FolderMetadata;
using storage::overlayprovider::getInnerMostURL;
using storage::overlayprovider::IFolderEntry;
using storage::overlayprovider::LocationIndex;
using storage::overlayprovider::lowerCaseHashOf;
using storage::overlayprovider::MetadataCache;

namespace {

std::shared_ptr<FileMetadata> file(std::u16string const& iri) {
  auto record = std::make_shared<FileMetadata>(StorageIRI(iri), false);
  record->withLastModified(boost::posix_time::time_from_string("2020-01-01 00:00:00"));
  return record;
}

std::shared_ptr<FolderMetadata> folder(std::u16string const& iri) {
  auto record = std::make_shared<FolderMetadata>(StorageIRI(iri), false);
  record->withLastModified(boost::posix_time::time_from_string("2020-01-01 00:00:00"));
  return record;
}

// The case-insensitive match as the rule states it: a walk over every key.
template <class Map>
typename Map::iterator walk(Map& map, StorageIRI const& wanted) {
  std::size_t const hash = lowerCaseHashOf(wanted);
  for (auto it = map.begin(); it != map.end(); ++it) {
    if (lowerCaseHashOf(it->first) == hash) return it;
  }
  return map.end();
}

TEST(LocationIndexTest, LowerCaseHashIsTheHashOfTheFullyLowerCasedText) {
  // ASCII text takes a shortcut past the Unicode library; every character must come out
  // as the library lower-cases it.
  std::u16string ascii;
  for (char16_t c = 1; c < 0x80; ++c) ascii.push_back(c);
  for (auto const& text : {ascii, std::u16string(u"MEM:///Docs/README.TXT"), std::u16string(u"mem:///\u00C4rger/\u0130"),
                           std::u16string(2000, u'Q'), std::u16string(u"mem:///a\u00DF")}) {
    EXPECT_EQ(lowerCaseHashOf(text), std::hash<std::u16string>{}(fl::i18n::to_lower(text)));
  }
}

TEST(LocationIndexTest, AgreesWithAWalkThroughAnySequenceOfChanges) {
  using Map = std::map<StorageIRI, int>;
  Map map;
  LocationIndex<Map> index(map);
  // Few names in many spellings, so that most lookups meet several keys of one
  // lower-case form, and the first of them keeps changing.
  auto upper = [](char16_t c) -> char16_t {
    if (c >= u'a' && c <= u'z') return static_cast<char16_t>(c - u'a' + u'A');
    return c == u'\u00E4' ? u'\u00C4' : c;  // a non-ASCII letter too
  };
  std::vector<StorageIRI> names;
  for (std::u16string const name : {u"a.txt", u"b", u"\u00E4x"}) {
    std::set<std::u16string> spellings;
    for (unsigned mask = 0; mask < (1u << name.size()); ++mask) {
      std::u16string spelled = name;
      for (std::size_t i = 0; i < spelled.size(); ++i) {
        if (mask & (1u << i)) spelled[i] = upper(spelled[i]);
      }
      spellings.insert(spelled);
    }
    for (auto const& spelled : spellings) names.emplace_back(u"mem:///d/" + spelled);
  }
  // And enough other names that the tables grow and their probe chains cross.
  for (int i = 0; i < 200; ++i) names.emplace_back(u"mem:///d/n" + std::u16string(1, static_cast<char16_t>(u'a' + i % 26)) +
                                                   std::u16string(1, static_cast<char16_t>(u'A' + i / 26)));
  std::mt19937 random(20240601);
  for (int step = 0; step < 20000; ++step) {
    StorageIRI const& name = names[random() % names.size()];
    switch (random() % 4) {
      case 0: {
        auto [it, inserted] = map.emplace(name, step);
        if (inserted) index.inserted(it);
        break;
      }
      case 1:
        if (auto it = map.find(name); it != map.end()) {
          index.erasing(it);
          map.erase(it);
        }
        break;
      default:
        break;
    }
    // Lookups build the tables at different moments of the sequence.
    if (step == 10 || step % 7 == 0) {
      ASSERT_EQ(index.findFolded(name), walk(map, name)) << "step " << step;
    }
    if (step == 20 || step % 5 == 0) {
      ASSERT_EQ(index.findExact(name), map.find(name)) << "step " << step;
    }
    if (step == 12000) {
      map.clear();
      index.cleared();
    }
  }
  // Every spelling once more, against the final map.
  for (auto const& name : names) {
    EXPECT_EQ(index.findFolded(name), walk(map, name));
    EXPECT_EQ(index.findExact(name), map.find(name));
  }
}

TEST(LocationIndexTest, FolderEntryMatchesTheFirstKeyOfALowerCaseFormAndKeepsDoingSoAsKeysComeAndGo) {
  IFolderEntry entry(StorageIRI(u"mem:///d"));
  entry.withMetadata(folder(u"mem:///d"));
  // Key order: "A.txt" < "a.TXT" < "a.txt" (upper case sorts first).
  entry.addFileMetadata(file(u"mem:///d/a.txt"), false);
  entry.addFileMetadata(file(u"mem:///d/A.txt"), false);
  entry.addFileMetadata(file(u"mem:///d/a.TXT"), false);
  StorageIRI const wanted(u"mem:///D/A.TXT");
  auto matched = [&] {
    auto record = entry.getFileMetadata(wanted, false);
    return record ? record->getLocation().toString() : std::u16string(u"none");
  };
  EXPECT_EQ(matched(), u"mem:///d/A.txt");

  // Removing case-insensitively removes the first match, and the next one takes over.
  entry.removeFileMetadata(wanted, false);
  EXPECT_EQ(matched(), u"mem:///d/a.TXT");
  entry.removeFileMetadata(StorageIRI(u"mem:///d/a.TXT"), true);
  EXPECT_EQ(matched(), u"mem:///d/a.txt");

  // A key that sorts before the others becomes the match as soon as it is added.
  entry.addFileMetadata(file(u"mem:///d/A.TXT"), false);
  EXPECT_EQ(matched(), u"mem:///d/A.TXT");

  // The first match is a folder: a file lookup finds nothing, even though a file of the
  // same lower-case form follows it; a folder lookup finds the folder.
  entry.removeFileMetadata(StorageIRI(u"mem:///d/A.TXT"), true);
  entry.addFolderMetadata(folder(u"mem:///d/A.TXt"), false);  // sorts before "a.txt"
  EXPECT_EQ(entry.getFileMetadata(wanted, false), nullptr);
  ASSERT_NE(entry.getFolderMetadata(wanted, false), nullptr);
  EXPECT_EQ(entry.getFolderMetadata(wanted, false)->getLocation(), StorageIRI(u"mem:///d/A.TXt"));
  // Case-sensitive lookups see each key on its own.
  EXPECT_NE(entry.getFileMetadata(StorageIRI(u"mem:///d/a.txt"), true), nullptr);
  EXPECT_EQ(entry.getFileMetadata(StorageIRI(u"mem:///d/A.txt"), true), nullptr) << "removed above";
  entry.removeFolderMetadata(wanted, false);
  EXPECT_EQ(matched(), u"mem:///d/a.txt");
  EXPECT_EQ(entry.getAllContent().size(), 1u);
}

TEST(LocationIndexTest, CacheFindsTheFirstFolderOfALowerCaseFormAndForgetsDroppedFolders) {
  auto store = std::make_shared<MemStore>(metadata_test::caseInsensitive());
  auto inner = std::make_shared<StorageItem>(store, store->root());
  MetadataCache cache(inner, false);
  cache.createFolderMetadata(StorageIRI(u"mem:///docs"));
  cache.createFolderMetadata(StorageIRI(u"mem:///Docs"));  // a second entry: folders are added by exact key
  cache.createFileMetadata(StorageIRI(u"mem:///Docs/x.txt"));
  auto const first = cache.getFolderContainer(StorageIRI(u"mem:///DOCS"));
  EXPECT_EQ(first->getLocation(), StorageIRI(u"mem:///Docs")) << "\"Docs\" sorts before \"docs\"";
  EXPECT_TRUE(cache.hasFile(StorageIRI(u"mem:///DOCS/X.TXT")));

  cache.removeFolder(StorageIRI(u"mem:///Docs"));
  auto const second = cache.getFolderContainer(StorageIRI(u"mem:///DOCS"));
  EXPECT_EQ(second->getLocation(), StorageIRI(u"mem:///docs"));
  EXPECT_FALSE(cache.hasFile(StorageIRI(u"mem:///DOCS/X.TXT")));

  // Dropping everything leaves nothing to find; the next lookup makes a new entry.
  cache.invalidateAll();
  auto const fresh = cache.getFolderContainer(StorageIRI(u"mem:///docs"));
  EXPECT_NE(fresh, second);
  EXPECT_EQ(cache.cachedFolders(), std::vector<StorageIRI>{StorageIRI(u"mem:///docs")});
}

TEST(LocationIndexTest, KeyForAgreesWithTheMappingAndKeepsPlainKeysAsTheyAre) {
  for (char16_t const* text :
       {u"mem:///a/b.txt", u"mem:///", u"mem:///\u00E4/\U0001F600", u"mem:///a b/c", u"mem://s1/a", u"MEM:///a",
        u"mem:///a/./b", u"mem:///a/../b", u"mem:///a//b", u"mem:///a/", u"mem:///a?q", u"mem:///a#f",
        u"sync+mem:///a", u"overlay:<mem://s1/>/x/y", u"overlay:<overlay:<mem://s1/>/>/x", u"throttle:<mem://s1/>/x",
        u"overlay:<mem://s1/sub>/x", u"file:///srv/%41", u"file:///a\\b", u"mem:///..", u"mem:///.hidden/a..b",
        u"throttle:<mem://s1/sub>/x/y", u"throttle:<file:///tmp/Bench.X/overlay>/a/b.dat", u"THROTTLE:<mem:///r>/a",
        u"throttle:<mem:///r>/a/../b", u"throttle:<mem:///r>/a/", u"sync+t:<mem:///r>/a", u"t:<throttle:<mem:///r>/>/a",
        u"t:<throttle:<mem:///>/r>/a", u"throttle:<mem:///r>/", u"overlay:<throttle:<mem:///r>/>/a"}) {
    StorageIRI const iri(text);
    EXPECT_EQ(MetadataCache::getInnerMostURL(iri), getInnerMostURL(iri)) << iri;
  }
  // Joined names may hold what the parser would read as a query or a fragment.
  StorageIRI const joined(StorageIRI(u"mem:///d"), u"what?#");
  EXPECT_EQ(MetadataCache::getInnerMostURL(joined), getInnerMostURL(joined));
}

}  // namespace
