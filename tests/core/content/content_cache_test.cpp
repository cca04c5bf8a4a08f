// ContentCache on one thread: where the cache lives and when it appears on disk, one
// entry per location until a write problem, space arbitration with eviction by access
// time, the deferred recycle bin, the invalidations, moves and copies, and the failures
// the caller sees.
#include "content/content_cache_test_support.hpp"

#include <core/content/CacheFileNaming.hpp>
#include <core/metadata/MetadataCache.hpp>

#include <fl/filesystem.hpp>
#include <foundation/log/Severity.hpp>
#include <foundation/storage/provider/ExtendedAttributes.hpp>
#include <foundation/storage/provider/Exception.hpp>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace content_cache_test {
namespace {

using namespace std::chrono_literals;
using foundation::log::MemorySink;
using foundation::log::Severity;
using ovl::CachingErrorException;
using ovl::ContentCache;
using providers::mem::Operation;

std::string whatOf(std::function<void()> const& call) {
  try {
    call();
  } catch (CachingErrorException const& e) {
    return e.what();
  }
  return "<nothing thrown>";
}

std::shared_ptr<ovl::FileMetadata> withWatermark(std::shared_ptr<ovl::FileMetadata> record, std::string watermark) {
  fsp::ExtendedAttributes attributes;
  attributes.setAttribute("WATERMARK", std::move(watermark));
  record->withExtendedAttributes(attributes);
  return record;
}

class ContentCacheTest : public ContentCacheFixture {};

TEST_F(ContentCacheTest, LivesUnderAFreshRootAndMakesItsDataDirectoryOnEveryCall) {
  ContentCache defaulted;
  ContentCache other;
  auto const rootOf = defaulted.getCacheRoot();
  EXPECT_EQ(rootOf.parent_path(), fl::filesystem::temp_directory_name());
  std::string const name = rootOf.filename().string();
  EXPECT_EQ(name.rfind("overlay_cache-", 0), 0u) << name;
  EXPECT_EQ(name.size(), std::string("overlay_cache-").size() + 36);
  EXPECT_NE(other.getCacheRoot(), rootOf) << "each cache has a root of its own";
  EXPECT_EQ(defaulted.getDataDirectory(), rootOf / "V1.0");
  EXPECT_FALSE(std::filesystem::exists(rootOf)) << "nothing on disk before the first operation";

  // The configured root: created with its data directory on the first call, and again
  // after someone removed it.
  auto const data = root.path() / "cache" / "V1.0";
  EXPECT_EQ(cache.getDataDirectory(), data);
  EXPECT_FALSE(std::filesystem::exists(data));
  EXPECT_FALSE(cache.hasEntry(iri(u"a")));
  EXPECT_TRUE(std::filesystem::is_directory(data));
  std::filesystem::remove_all(root.path() / "cache");
  cache.invalidate(iri(u"a"), true);
  EXPECT_TRUE(std::filesystem::is_directory(data));

  // A new root later on: the next call makes it.
  cache.withCacheRoot(root.path() / "elsewhere");
  EXPECT_FALSE(cache.hasAliveEntry(iri(u"a"), false));
  EXPECT_TRUE(std::filesystem::is_directory(root.path() / "elsewhere" / "V1.0"));
}

TEST_F(ContentCacheTest, HandsOutOneEntryPerLocationUntilAWriteProblemAbortsIt) {
  store->elsewhere().writeFile(u"/a", "old content");
  auto const first = retrieve(u"a");
  EXPECT_EQ(retrieve(u"a"), first);
  EXPECT_NE(retrieve(u"b"), first);
  EXPECT_EQ(cache.entryLocations(), (std::vector<fsp::StorageIRI>{iri(u"a"), iri(u"b")}));

  // A write whose write-behind the store refuses (no retry helps): the entry holds bytes
  // the store never received.
  first->openReadWrite({});
  first->write(0, "NEW", 3);
  store->failNext(Operation::Write, 1, fsp::ErrorCode::QuotaExceeded);
  first->flushContentCache();
  ASSERT_TRUE(first->wasAbortedDueToWriteProblem());
  auto const stale = first->getCheckoutPath();
  ASSERT_TRUE(std::filesystem::exists(stale));

  MemorySink sink;
  auto const fresh = retrieve(u"a");
  EXPECT_NE(fresh, first);
  EXPECT_EQ(countRecords(sink, "Retrieving mem:///a due to previous abort.", Severity::Notice), 1u);
  EXPECT_FALSE(std::filesystem::exists(stale)) << "the unsent bytes are thrown away";
  EXPECT_EQ(cache.recycleBinSize(), 1u);
  EXPECT_EQ(readThrough(*fresh, 0, 100), "old content") << "the fresh entry reads what the store holds";
  EXPECT_EQ(retrieve(u"a"), fresh);
}

TEST_F(ContentCacheTest, NoSpaceWithNothingToEvictAndOtherFailuresReachTheCallerAsOneText) {
  store->elsewhere().writeFile(u"/big", std::string(12345, 'x'));
  installArbitrator(/*otherwise=*/false);
  {
    MemorySink sink;
    EXPECT_EQ(whatOf([&] { retrieve(u"big"); }), "Caching failed due to an unknown error.");
    EXPECT_EQ(figures.asked, std::vector<unsigned long>{12345}) << "asked once for the file's size";
    EXPECT_EQ(messagesAt(sink, {Severity::Error, Severity::Diagnostic}),
              (std::vector<std::string>{"Content caching failure (no space).", "Content caching failure.",
                                        "Exception caught: Caching failed due to a lack of filespace."}));
    EXPECT_FALSE(cache.hasEntry(iri(u"big")));
  }
  {
    // A measurement that fails.
    MemorySink sink;
    installArbitrator().failing("volume gone");
    EXPECT_EQ(whatOf([&] { retrieve(u"big"); }), "Caching failed due to an unknown error.");
    EXPECT_EQ(messagesAt(sink, {Severity::Error, Severity::Diagnostic}),
              (std::vector<std::string>{"Content caching failure.", "Exception caught: volume gone"}));
  }
  {
    // An entry that cannot be made (no executor).
    MemorySink sink;
    installArbitrator();
    EXPECT_EQ(whatOf([&] {
                cache.retrieveEntry(iri(u"big"), std::make_shared<fsp::StorageItem>(store, iri(u"big")),
                                    metadataFor(u"big"), nullptr, nullptr, nullptr,
                                    ovl::WorkingFileEntryParams(4096, 4096), shutdownFlag);
              }),
              "Caching failed due to an unknown error.");
    EXPECT_EQ(countRecords(sink, "Content caching failure.", Severity::Error), 1u);
    EXPECT_FALSE(cache.hasEntry(iri(u"big")));
  }
}

TEST_F(ContentCacheTest, EvictsTheLeastRecentlyAccessedEntryFirstInLocationOrderOnTies) {
  for (char const* name : {"a", "b", "c", "d", "e"}) {
    store->elsewhere().writeFile(u"/" + std::u16string(1, static_cast<char16_t>(name[0])), std::string("/") + name);
  }
  auto& arbitrator = installArbitrator();
  clock.set(5ms);
  retrieve(u"a");
  clock.set(3ms);
  retrieve(u"c");  // made before "b", yet "b" comes first in location order
  auto b = retrieve(u"b");
  EXPECT_EQ(readThrough(*b, 0, 10), "/b");  // a read at time 3 gives "b" a cache file
  auto const bFile = b->getCheckoutPath();
  ASSERT_TRUE(std::filesystem::exists(bFile));
  b.reset();

  MemorySink sink;
  arbitrator.then(false);
  clock.set(10ms);
  retrieve(u"d");
  EXPECT_EQ(cache.entryLocations(), (std::vector<fsp::StorageIRI>{iri(u"a"), iri(u"c"), iri(u"d")}));
  EXPECT_FALSE(std::filesystem::exists(bFile)) << "the evicted entry's cache file is deleted";
  EXPECT_EQ(figures.removals, 1);
  EXPECT_EQ(countRecords(sink, "Content cache out of space. Removing least recently accessed item.", Severity::Notice),
            1u);

  // A read moves an entry's access time: "c" read at 20 is now the youngest but one.
  clock.set(20ms);
  auto c = retrieve(u"c");
  EXPECT_EQ(readThrough(*c, 0, 10), "/c");
  arbitrator.then(false).then(false);
  clock.set(30ms);
  retrieve(u"e");
  EXPECT_EQ(cache.entryLocations(), (std::vector<fsp::StorageIRI>{iri(u"c"), iri(u"e")})) << "a (5), then d (10)";
  EXPECT_EQ(figures.removals, 3);
  // Every question was for the size of the file being opened ("/d" and "/e": 2 bytes).
  EXPECT_EQ(figures.asked.back(), 2u);
}

TEST_F(ContentCacheTest, TheRecycleBinIsEmptiedOnlyAtTheNextDisposal) {
  std::weak_ptr<ovl::WorkingFileEntry> const a = retrieve(u"a");
  std::weak_ptr<ovl::WorkingFileEntry> const b = retrieve(u"b");
  std::weak_ptr<ovl::WorkingFileEntry> const c = retrieve(u"c");
  cache.invalidate(iri(u"a"), false);
  EXPECT_EQ(cache.recycleBinSize(), 1u);
  EXPECT_FALSE(a.expired()) << "disposed entries stay alive in the bin";

  cache.emptyRecycleBin();
  EXPECT_EQ(cache.recycleBinSize(), 1u) << "asking does not empty it";
  EXPECT_FALSE(a.expired());
  cache.invalidate(iri(u"b"), false);
  EXPECT_EQ(cache.recycleBinSize(), 1u) << "the next disposal empties it first";
  EXPECT_TRUE(a.expired());
  EXPECT_FALSE(b.expired());

  // invalidateAll empties both the bin and the map, asked or not.
  cache.invalidateAll();
  EXPECT_EQ(cache.recycleBinSize(), 0u);
  EXPECT_TRUE(cache.entryLocations().empty());
  EXPECT_TRUE(b.expired());
  EXPECT_TRUE(c.expired());
}

TEST_F(ContentCacheTest, InvalidationsDropWhatChangedAndKeepTheRest) {
  store->elsewhere().writeFile(u"/w", "watermarked");
  auto const entry = retrieve(u"w", withWatermark(metadataFor(u"w"), "7"));
  EXPECT_EQ(readThrough(*entry, 0, 100), "watermarked");
  auto const file = entry->getCheckoutPath();

  cache.invalidateOldEntry(iri(u"w"), "7", true);
  EXPECT_EQ(retrieve(u"w"), entry) << "the same watermark keeps the entry";
  EXPECT_FALSE(entry->getAbortTime());
  EXPECT_TRUE(std::filesystem::exists(file));
  cache.invalidateOldEntry(iri(u"missing"), "1", true);  // nothing registered: nothing happens

  clock.set(4242ms);
  cache.invalidateOldEntry(iri(u"w"), "8", true);
  EXPECT_FALSE(cache.hasEntry(iri(u"w")));
  EXPECT_FALSE(std::filesystem::exists(file)) << "old content is deleted";
  EXPECT_EQ(entry->getAbortTime(), clock.now());
  EXPECT_EQ(cache.recycleBinSize(), 1u);

  // A plain invalidation keeps the cache file for the next entry to check, and marks the
  // entry; aborting is the caller's choice.
  auto const kept = retrieve(u"w");
  EXPECT_EQ(readThrough(*kept, 0, 100), "watermarked");
  kept->openReadOnly();  // a stream holds it while it is dropped
  cache.invalidate(iri(u"w"), false);
  EXPECT_FALSE(cache.hasEntry(iri(u"w")));
  EXPECT_TRUE(kept->wasInvalidationTriggered());
  EXPECT_FALSE(kept->getAbortTime());
  EXPECT_TRUE(std::filesystem::exists(kept->getCheckoutPath()));
  auto const aborted = retrieve(u"w");
  cache.invalidate(iri(u"w"), true);
  EXPECT_TRUE(aborted->getAbortTime().has_value());

  // Descendants go; the folder's own location and its look-alike neighbour stay.
  for (auto const* path : {u"d", u"d/a", u"d/sub/b", u"dx", u"e"}) retrieve(path);
  auto const child = retrieve(u"d/a");
  cache.invalidateAllDescendantsOf(iri(u"d"), true);
  EXPECT_EQ(cache.entryLocations(), (std::vector<fsp::StorageIRI>{iri(u"d"), iri(u"dx"), iri(u"e")}));
  EXPECT_TRUE(child->getAbortTime().has_value());
  auto const unaborted = retrieve(u"d/x");
  cache.invalidateAllDescendantsOf(iri(u"d"), false);
  EXPECT_FALSE(unaborted->getAbortTime().has_value());
}

TEST_F(ContentCacheTest, TheCurrentEntryIsFoundWithoutMakingOneAndDroppedWhenItsContentIsOld) {
  installArbitrator();
  // Nothing registered: nothing is made, nothing asked, not even the data directory.
  EXPECT_EQ(cache.currentEntry(iri(u"w"), "7"), nullptr);
  EXPECT_TRUE(cache.entryLocations().empty());
  EXPECT_TRUE(figures.asked.empty());
  EXPECT_FALSE(std::filesystem::exists(cache.getDataDirectory()));

  store->elsewhere().writeFile(u"/w", "watermarked");
  auto const entry = retrieve(u"w", withWatermark(metadataFor(u"w"), "7"));
  EXPECT_EQ(readThrough(*entry, 0, 100), "watermarked");
  auto const file = entry->getCheckoutPath();
  auto const asked = figures.asked.size();
  EXPECT_EQ(cache.currentEntry(iri(u"w"), "7"), entry);
  EXPECT_EQ(figures.asked.size(), asked) << "finding asks for no space";

  // Another watermark: dropped as invalidateOldEntry drops it (not aborted, cache file
  // deleted, into the recycle bin).
  EXPECT_EQ(cache.currentEntry(iri(u"w"), "8"), nullptr);
  EXPECT_FALSE(cache.hasEntry(iri(u"w")));
  EXPECT_FALSE(std::filesystem::exists(file));
  EXPECT_FALSE(entry->getAbortTime());
  EXPECT_EQ(cache.recycleBinSize(), 1u);
}

// Given a record rather than a watermark text, the check compares contents: the entry's
// own record, refreshed in place by a close since the caller looked it up, never makes
// the entry old; another record does when its watermark differs.
TEST_F(ContentCacheTest, AnEntrysOwnRecordNeverMakesItOldAnotherRecordByItsWatermark) {
  store->elsewhere().writeFile(u"/w", "watermarked");
  auto const own = withWatermark(metadataFor(u"w"), "7");
  auto const entry = retrieve(u"w", own);
  withWatermark(own, "8");  // what a close transaction does to the entry's record
  cache.invalidateOldEntry(iri(u"w"), *own, false);
  EXPECT_EQ(cache.currentEntry(iri(u"w"), *own), entry);
  EXPECT_EQ(cache.currentEntry(iri(u"w"), *withWatermark(metadataFor(u"w"), "8")), entry) << "an equal watermark";

  cache.invalidateOldEntry(iri(u"w"), *withWatermark(metadataFor(u"w"), "9"), false);
  EXPECT_FALSE(cache.hasEntry(iri(u"w"))) << "another record with another watermark";
  EXPECT_EQ(cache.recycleBinSize(), 1u);
}

TEST_F(ContentCacheTest, ANewEntryDoesNotTakeThePartlyFilledCacheFileOfAnInvalidatedOne) {
  std::string const content = overlay_test::patternBytes(20000, 5);
  store->elsewhere().writeFile(u"/p", content);
  auto const first = retrieve(u"p");
  // Two 4096-byte payloads: the cache file has a hole between them.
  EXPECT_EQ(readThrough(*first, 0, 100), content.substr(0, 100));
  EXPECT_EQ(readThrough(*first, 15000, 100), content.substr(15000, 100));
  first->openReadOnly();  // a stream goes on reading the invalidated entry
  cache.invalidate(iri(u"p"), false);
  ASSERT_TRUE(std::filesystem::exists(first->getCheckoutPath())) << "kept for the entry's open stream";

  auto const second = retrieve(u"p");
  ASSERT_NE(second, first);
  second->openReadOnly();
  std::string buffer(100, '\0');
  ASSERT_EQ(second->read(10000, buffer.data(), 100), 100);
  EXPECT_EQ(buffer, content.substr(10000, 100)) << "bytes the first entry never fetched";
  second->flushContentCache();
  // The first entry still reads what it cached, and fetches the rest for itself.
  ASSERT_EQ(first->read(50, buffer.data(), 100), 100);
  EXPECT_EQ(buffer, content.substr(50, 100));
  ASSERT_EQ(first->read(8000, buffer.data(), 100), 100);
  EXPECT_EQ(buffer, content.substr(8000, 100));
  first->flushContentCache();
}

TEST_F(ContentCacheTest, AnAliveEntryIsOneAStreamHoldsAndForWritingNotReadOnly) {
  EXPECT_FALSE(cache.hasAliveEntry(iri(u"r"), false));
  auto const reader = retrieve(u"r");
  EXPECT_FALSE(cache.hasAliveEntry(iri(u"r"), false)) << "no stream holds it yet";
  reader->openReadOnly();
  EXPECT_TRUE(cache.hasAliveEntry(iri(u"r"), false));
  EXPECT_FALSE(cache.hasAliveEntry(iri(u"r"), true)) << "read-only, although a stream is open";

  auto const writer = retrieve(u"w");
  writer->openReadWrite({});
  EXPECT_TRUE(cache.hasAliveEntry(iri(u"w"), false));
  EXPECT_TRUE(cache.hasAliveEntry(iri(u"w"), true));
  writer->flushContentCache();
  EXPECT_FALSE(cache.hasAliveEntry(iri(u"w"), true)) << "its last stream closed";
}

TEST_F(ContentCacheTest, ARootThatCannotBeMadeFailsEveryCallUntilItCan) {
  auto const blocker = root.path() / "blocker";
  std::ofstream(blocker) << "a file where a directory should be";
  cache.withCacheRoot(blocker / "cache");
  {
    MemorySink sink;
    EXPECT_EQ(whatOf([&] { retrieve(u"a"); }), "Problem initializing cache root.");
    EXPECT_EQ(whatOf([&] { cache.hasEntry(iri(u"a")); }), "Problem initializing cache root.");
    EXPECT_EQ(countRecords(sink, "Problem checking or creating cache root", Severity::Error), 2u);
    auto const all = messagesAt(sink, {Severity::Diagnostic});
    ASSERT_FALSE(all.empty());
    EXPECT_EQ(all.front().rfind("Exception caught: ", 0), 0u);
    EXPECT_NE(all.front().find("blocker"), std::string::npos) << "the failure names the path: " << all.front();
  }
  std::filesystem::remove(blocker);
  EXPECT_NE(retrieve(u"a"), nullptr) << "tried again, now it works";
  EXPECT_TRUE(std::filesystem::is_directory(blocker / "cache" / "V1.0"));

  // The arbitrator made at initialization: a failed measurement is tried again as well.
  int measurements = 0;
  ContentCache measured(overlay_test::timingOn(clock), [&](fl::filesystem::path const&) {
    if (++measurements == 1) throw std::runtime_error("statvfs failed");
    return ovl::LocalFSCacheSpaceArbitrator::VolumeSpace{1000, 1000};
  });
  measured.withCacheRoot(root.path() / "measured");
  {
    MemorySink sink;
    EXPECT_EQ(whatOf([&] { measured.lazyInitialize(); }), "Problem initializing cache root.");
    EXPECT_EQ(countRecords(sink, "Problem initializing space arbitrator", Severity::Error), 1u);
    EXPECT_EQ(countRecords(sink, "Exception caught: statvfs failed", Severity::Diagnostic), 1u);
  }
  measured.lazyInitialize();
  measured.lazyInitialize();
  EXPECT_EQ(measurements, 2) << "made once it succeeded";
  // The measured volume (1000 bytes, all free) leaves no room for 990 more bytes.
  store->elsewhere().writeFile(u"/big", std::string(990, 'x'));
  EXPECT_EQ(whatOf([&] {
              measured.retrieveEntry(iri(u"big"), std::make_shared<fsp::StorageItem>(store, iri(u"big")),
                                     metadataFor(u"big"), executor, nullptr, nullptr,
                                     ovl::WorkingFileEntryParams(4096, 4096), shutdownFlag);
            }),
            "Caching failed due to an unknown error.");

  // An arbitrator installed before the first call replaces the measured one.
  int unused = 0;
  ContentCache installed(overlay_test::timingOn(clock), [&](fl::filesystem::path const&) {
    ++unused;
    return ovl::LocalFSCacheSpaceArbitrator::VolumeSpace{};
  });
  installed.withCacheRoot(root.path() / "installed");
  installed.setCacheSpaceArbitrator(std::make_unique<ScriptedArbitrator>(figures));
  installed.lazyInitialize();
  EXPECT_EQ(unused, 0);
}

TEST_F(ContentCacheTest, FileMovesAndCopiesTakeTheEntryAndItsBytesAlong) {
  store->elsewhere().writeFile(u"/a", "content of a");
  store->elsewhere().writeFile(u"/b", "content of b");
  auto const a = retrieve(u"a");
  EXPECT_EQ(readThrough(*a, 0, 100), "content of a");
  auto const oldB = retrieve(u"b");

  // The store moves "a" over "b"; the cache follows.
  store->doMoveFile(iri(u"a"), iri(u"b"), fsp::ReplacementPolicy::Always);
  auto const movedRecord = metadataFor(u"b");
  cache.moveFile(iri(u"a"), iri(u"b"), movedRecord);
  EXPECT_EQ(cache.entryLocations(), std::vector<fsp::StorageIRI>{iri(u"b")});
  EXPECT_EQ(retrieve(u"b"), a);
  EXPECT_EQ(a->getLocation(), iri(u"b"));
  EXPECT_EQ(a->getMetadata(), movedRecord);
  EXPECT_EQ(cache.recycleBinSize(), 1u) << "the replaced entry is disposed";
  auto const reads = store->calls(Operation::Read);
  EXPECT_EQ(readThrough(*a, 0, 100), "content of a");
  EXPECT_EQ(store->calls(Operation::Read), reads) << "served from the moved cache file";
  cache.moveFile(iri(u"nothing"), iri(u"b"), movedRecord);  // no entry: nothing happens
  EXPECT_EQ(retrieve(u"b"), a);

  // A copy is a new entry with its own copy of the bytes; the source is untouched.
  store->doCopyFile(iri(u"b"), iri(u"c"), fsp::ReplacementPolicy::Always);
  cache.copyFile(iri(u"b"), iri(u"c"), metadataFor(u"c"));
  auto const c = retrieve(u"c");
  EXPECT_NE(c, a);
  EXPECT_EQ(c->getLocation(), iri(u"c"));
  EXPECT_NE(c->getCheckoutPath(), a->getCheckoutPath());
  EXPECT_EQ(readThrough(*c, 0, 100), "content of a");
  EXPECT_EQ(retrieve(u"b"), a);
  cache.copyFile(iri(u"nothing"), iri(u"c"), metadataFor(u"c"));
  EXPECT_EQ(retrieve(u"c"), c);
}

class ContentCacheFolderMoveTest : public ContentCacheFixture {
 protected:
  void SetUp() override {
    auto& side = store->elsewhere();
    side.createFolder(u"/src/sub");
    side.createFolder(u"/dst");
    side.createFolder(u"/other");
    side.writeFile(u"/src/a", "src a");
    side.writeFile(u"/src/sub/b", "src b");
    side.writeFile(u"/src/only", "src only");
    side.writeFile(u"/dst/a", "dst a");
    side.writeFile(u"/other/x", "x");
  }

  // An entry for the file whose record the metadata cache holds.
  std::shared_ptr<ovl::WorkingFileEntry> cached(std::u16string const& path) {
    auto record = metadata.getFileMetadata(iri(path));
    EXPECT_NE(record, nullptr) << "no record for " << std::string(path.begin(), path.end());
    return retrieve(path, record);
  }

  // As the overlay does it: the metadata at once, then the content cache, then the
  // inner store.
  void moveEverywhere(fsp::ReplacementPolicy policy) {
    metadata.moveFolder(iri(u"src"), iri(u"dst"), policy);
    cache.moveFolder(iri(u"src"), iri(u"dst"), policy, metadata);
    store->doMoveFolder(iri(u"src"), iri(u"dst"), policy);
  }

  std::shared_ptr<fsp::StorageItem> inner = std::make_shared<fsp::StorageItem>(store, store->root());
  ovl::MetadataCache metadata{inner, true};
};

TEST_F(ContentCacheFolderMoveTest, EntriesBelowTheFolderMoveWithTheirRecordsAndReplaceWhatWasThere) {
  auto const a = cached(u"src/a");
  auto const b = cached(u"src/sub/b");
  auto const oldA = cached(u"dst/a");
  auto const x = cached(u"other/x");
  EXPECT_EQ(readThrough(*b, 0, 100), "src b");
  moveEverywhere(fsp::ReplacementPolicy::Always);

  EXPECT_EQ(cache.entryLocations(), (std::vector<fsp::StorageIRI>{iri(u"dst/a"), iri(u"dst/sub/b"), iri(u"other/x")}));
  EXPECT_EQ(retrieve(u"dst/a"), a);
  EXPECT_EQ(a->getLocation(), iri(u"dst/a"));
  EXPECT_EQ(a->getMetadata(), metadata.getFileMetadata(iri(u"dst/a")));
  EXPECT_TRUE(oldA->getAbortTime().has_value()) << "what was registered at the destination is dropped";
  EXPECT_EQ(retrieve(u"dst/sub/b"), b);
  auto const reads = store->calls(Operation::Read);
  EXPECT_EQ(readThrough(*b, 0, 100), "src b");
  EXPECT_EQ(store->calls(Operation::Read), reads) << "the cache file moved along";
  EXPECT_EQ(retrieve(u"other/x"), x);
}

TEST_F(ContentCacheFolderMoveTest, KeepExistingKeepsTheDestinationsEntryAndDropsTheMovingOne) {
  auto const a = cached(u"src/a");
  auto const only = cached(u"src/only");
  auto const kept = cached(u"dst/a");
  moveEverywhere(fsp::ReplacementPolicy::KeepExisting);

  EXPECT_EQ(cache.entryLocations(), (std::vector<fsp::StorageIRI>{iri(u"dst/a"), iri(u"dst/only")}));
  EXPECT_EQ(retrieve(u"dst/a"), kept);
  EXPECT_FALSE(kept->getAbortTime().has_value());
  EXPECT_TRUE(a->getAbortTime().has_value()) << "its bytes describe no file any more";
  EXPECT_EQ(retrieve(u"dst/only"), only);
  EXPECT_EQ(readThrough(*kept, 0, 100), "dst a");
}

}  // namespace
}  // namespace content_cache_test
