// The store conformance suite: what every storage provider answers, stated once and run
// against each provider.
//
// The suite talks to a provider only through `StorageItem`s built from the root item of a
// fresh, empty folder that a `Harness` hands out; it never calls store-specific APIs. So
// the same checks run against the `mem` and `file` stores and against the overlay over
// each of them ("the overlay answers as its inner store does").
//
// Instantiating the suite for a provider (one test file per provider):
//
//     #include <support/ConformanceSuite.hpp>
//
//     namespace {
//     ovltest::StoreUnderTest myStore() {
//       return {"my", [] { return std::make_shared<MyHarness>(); }};
//     }
//     }  // namespace
//
//     OVL_INSTANTIATE_CONFORMANCE_SUITE(My, myStore());
//
// The macro takes a prefix (an identifier, unique in the executable) and one or more
// `StoreUnderTest` values; each value's `name` becomes the suffix of the test names
// ("My/ConformanceSuite.LargeContentRoundTrips/my"). ConformanceStores.hpp has the
// factories for the `mem` and `file` stores.
//
// Checking a write-behind provider both before and after it has pushed its changes down:
// pass two values, one whose harness leaves `afterMutation` empty (the checks then see
// the provider's immediate answers) and one whose `afterMutation` flushes (the checks see
// what the store beneath holds). The suite calls `afterMutation` after each group of
// mutations and before checking their effect; refusals are checked at once, since they
// are answered synchronously.
//
// Why a macro: the TEST_P bodies live in ConformanceSuite.cpp inside the static library
// `ovl_test_support`. GoogleTest registers them from static initialisers, and the linker
// takes an object file out of a static library only when something refers to one of its
// symbols. The macro therefore also refers to `linkConformanceSuite()`, which pulls
// ConformanceSuite.o (with its registrations) into the executable. An executable that
// does not use the macro does not contain the suite at all.
#pragma once

#include <foundation/storage/provider/ByteStream.hpp>
#include <foundation/storage/provider/ErrorCode.hpp>
#include <foundation/storage/provider/FolderEntry.hpp>
#include <foundation/storage/provider/StorageIRI.hpp>
#include <foundation/storage/provider/StorageItem.hpp>

#include <gtest/gtest.h>

#include <functional>
#include <iosfwd>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace ovltest {

// What a provider can do beyond what every provider must; the suite leaves out the checks
// a provider cannot pass by its nature and says so in the test output.
struct StoreCapabilities {
  // setWritable(false) makes writes fail with NotWritable (2): opening a write stream on
  // the file, creating a child in the folder. False where the store only records the flag
  // (for example the local file system when the tests run as root, who may write any
  // file). The flag is reported by the attributes either way.
  bool enforcesWritable = true;
  // Names that differ only in case name different items.
  bool caseSensitive = true;
  // getFilenameSensitivity() answers `caseSensitive`. False for a provider that keeps the
  // framework's default answer (always case-sensitive) while matching names as the store
  // beneath it does: the overlay.
  bool reportsFilenameSensitivity = true;
  // createFolderRecursive on an existing folder succeeds. The overlay refuses it with
  // AlreadyExists (3), as it refuses any creation at a known IRI.
  bool createFolderRecursiveAcceptsExisting = true;
  // moveFolder with policy Never refuses an empty destination folder. The overlay refuses
  // only files and non-empty folders, and merges into an empty one.
  bool moveFolderNeverRefusesEmptyFolder = true;
  // A file's WATERMARK is there as soon as the file is written. The overlay's comes from
  // the store beneath, so a file written through the overlay has it once the queue
  // has drained.
  bool watermarkBeforeFlush = true;
  // Listings report a time set with setLastModified and a writable flag cleared with
  // setWritable, as the item's own attributes do. An object store lists only what it
  // keeps for every key (size, time of storing); what was set is in each object's
  // metadata, which the attributes of one item report.
  bool listingsCarrySetAttributes = true;
  // The item's own attributes report what was set and the store enforces the flag. False
  // for the overlay over a store whose listings do not carry them, once the overlay has
  // dropped its caches and listed the folder again (the flushed instantiations).
  bool keepsSetAttributes = true;
};

// One fresh working folder on the provider under test. The suite makes one harness per
// test, asks for the root once, and calls `tearDown` at the end of the test.
class Harness {
 public:
  virtual ~Harness() = default;

  // The root of a fresh, empty folder on the provider under test; it exists when this
  // returns. Every item the suite uses lies below it.
  virtual foundation::storage::provider::StorageItem root() = 0;

  virtual StoreCapabilities capabilities() const { return {}; }

  // Called by the suite after mutations, before it checks their effect. Stores do
  // nothing; an overlay instantiation can flush (and drop its caches) here so that the
  // checks see what reached the store beneath.
  virtual void afterMutation() {}

  // Makes every change accepted so far durable in the store beneath. The suite calls it
  // before `tearDown`. Stores do nothing.
  virtual void flush() {}

  // Releases what `root` made (a temporary folder, a provider). Called once, after the
  // last use of the root. Must not throw.
  virtual void tearDown() {}
};

// A harness over a root item that already exists, with an optional clean-up.
class SimpleHarness : public Harness {
 public:
  SimpleHarness(foundation::storage::provider::StorageItem root, StoreCapabilities capabilities,
                std::function<void()> cleanUp = {})
      : root_(std::move(root)), capabilities_(capabilities), cleanUp_(std::move(cleanUp)) {}

  foundation::storage::provider::StorageItem root() override { return root_; }
  StoreCapabilities capabilities() const override { return capabilities_; }
  void tearDown() override;

 private:
  foundation::storage::provider::StorageItem const root_;
  StoreCapabilities const capabilities_;
  std::function<void()> cleanUp_;
};

// The parameter of the suite: a provider under test and how to get a fresh harness on it.
struct StoreUnderTest {
  // Suffix of the test names: letters, digits and '_' only.
  std::string name;
  std::function<std::shared_ptr<Harness>()> make;
};

// GoogleTest prints a parameter by its name.
void PrintTo(StoreUnderTest const& store, std::ostream* out);

// Test-name generator for INSTANTIATE_TEST_SUITE_P: the store's name.
std::string storeName(::testing::TestParamInfo<StoreUnderTest> const& info);

// Refers to the object file that holds the suite's tests, so that the linker keeps it.
// Returns true.
bool linkConformanceSuite();

// A listing reduced to what the suite compares: name and kind.
struct ListedEntry {
  std::u16string name;
  bool isFile;
  bool operator==(ListedEntry const&) const = default;
  bool operator<(ListedEntry const& other) const {
    return name != other.name ? name < other.name : isFile < other.isFile;
  }
};
void PrintTo(ListedEntry const& entry, std::ostream* out);

// How a write to a file that is not writable failed, if it did.
struct WriteRefusal {
  enum class Where { Nowhere, Open, Write, Close };
  Where where = Where::Nowhere;
  std::optional<foundation::storage::provider::ErrorCode> code;
  // The IRI named, when the failure was an Exception.
  std::optional<foundation::storage::provider::StorageIRI> iri;
  std::string what;
};

// Passes when `action` throws the storage Exception with `code` naming `iri` (compared
// after resolution, so a trailing slash or the case of the scheme does not matter). Says
// what happened instead otherwise.
::testing::AssertionResult throwsStorageError(foundation::storage::provider::ErrorCode code,
                                              foundation::storage::provider::StorageIRI const& iri,
                                              std::function<void()> const& action);
// As above, but any of `iris` may be named (for the few cases where the contract leaves
// open which of two locations an error names).
::testing::AssertionResult throwsStorageError(foundation::storage::provider::ErrorCode code,
                                              std::vector<foundation::storage::provider::StorageIRI> const& iris,
                                              std::function<void()> const& action);

// Expects `statement` to throw the storage Exception `code` naming `iri` (a StorageIRI, or
// a vector of acceptable ones).
#define EXPECT_STORAGE_ERROR(code, iri, statement) \
  EXPECT_TRUE(::ovltest::throwsStorageError((code), (iri), [&] { statement; }))

class ConformanceSuite : public ::testing::TestWithParam<StoreUnderTest> {
 protected:
  using ErrorCode = foundation::storage::provider::ErrorCode;
  using StorageIRI = foundation::storage::provider::StorageIRI;
  using StorageItem = foundation::storage::provider::StorageItem;

  // Makes the harness and checks that its root is an existing, empty folder.
  void SetUp() override;
  // Flushes and tears the harness down.
  void TearDown() override;

  StoreCapabilities const& caps() const { return caps_; }
  StorageItem const& root() const { return root_; }
  // The item at `path` below the root ("docs/a.txt"); "" is the root.
  StorageItem item(std::u16string const& path) const;
  StorageIRI iri(std::u16string const& path) const { return item(path).getLocation(); }
  // Lets the harness settle the mutations made so far (see Harness::afterMutation).
  void settle() const { harness_->afterMutation(); }
  // Drains every pending change into the store beneath (nothing for plain stores).
  void flushAll() const { harness_->flush(); }

  // Writes `content` as the whole content of the file at `path` through one stream; the
  // file and its missing ancestors are created first when needed.
  void write(std::u16string const& path, std::string const& content) const;
  // The whole content of the file at `path`, read through a read-only stream.
  std::string read(std::u16string const& path) const;
  // Creates the folder at `path` and any missing ancestors.
  void mkdirs(std::u16string const& path) const;
  std::optional<unsigned long> sizeOf(std::u16string const& path) const;

  // Everything below the folder at `path`, by path relative to it ("sub/a.txt"): a file's
  // content, or "<folder>" for a folder. Walks plain listings and reads every file.
  using Tree = std::map<std::u16string, std::string>;
  Tree snapshot(std::u16string const& path) const;

  // The entries of `listing` as name and kind, sorted.
  std::vector<ListedEntry> listed(foundation::storage::provider::FolderEntryIteratorPtr listing) const;
  std::vector<std::u16string> sorted(std::vector<std::u16string> names) const;

  // Opens a write stream on `path`, writes one byte and closes; reports where it failed.
  WriteRefusal tryToWrite(std::u16string const& path) const;

  // Moves or copies the single file `from` to `to`.
  using FileTransfer =
      std::function<void(StorageItem from, StorageIRI const& to, foundation::storage::provider::ReplacementPolicy)>;
  // Expects each transfer that must be refused (onto a file without replacement, onto a
  // folder, of a missing file or of a folder, into a missing folder; the folder is sent to
  // `folderTarget`) to fail with its code and IRI, and leaves the tree as it was.
  void expectFileTransferRefusals(FileTransfer const& transfer, std::u16string const& folderTarget);

 private:
  std::shared_ptr<Harness> harness_;
  StoreCapabilities caps_;
  StorageItem root_;
};

}  // namespace ovltest

// Instantiates the conformance suite for the given StoreUnderTest values (see the top of
// this file). `prefix` must be an identifier unique within the executable.
#define OVL_INSTANTIATE_CONFORMANCE_SUITE(prefix, ...)                                                      \
  namespace ovltest {                                                                                       \
  INSTANTIATE_TEST_SUITE_P(prefix, ConformanceSuite, ::testing::Values(__VA_ARGS__), ::ovltest::storeName); \
  [[maybe_unused]] static bool const conformanceSuiteLinked_##prefix = ::ovltest::linkConformanceSuite();   \
  }                                                                                                         \
  static_assert(true, "")
