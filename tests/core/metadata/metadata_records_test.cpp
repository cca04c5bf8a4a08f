// File and folder metadata records: their fresh state, lazily produced extended
// attributes, the watermark rule, re-parenting and the visitors.
#include <core/metadata/FileMetadata.hpp>
#include <core/metadata/FileOrFolderMetadata.hpp>
#include <core/metadata/FolderMetadata.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace fsp = foundation::storage::provider;
using fsp::ExtendedAttributes;
using fsp::StorageIRI;
using storage::overlayprovider::FileMetadata;
using storage::overlayprovider::FileOrFolderMetadata;
using storage::overlayprovider::FolderMetadata;
using storage::overlayprovider::FreezeMetadataVisitor;
using storage::overlayprovider::GetLocationVisitor;
using storage::overlayprovider::GetNameVisitor;
using storage::overlayprovider::IsFileEntryVisitor;
using storage::overlayprovider::SetParentVisitor;

namespace {

boost::posix_time::ptime now() { return boost::posix_time::microsec_clock::universal_time(); }

ExtendedAttributes attributes(std::string const& name, boost::any value) {
  ExtendedAttributes result;
  result.setAttribute(name, std::move(value));
  return result;
}

// Records every call of a producer and answers with one attribute naming the path.
struct RecordingProducer {
  std::vector<std::u16string>* paths;
  ExtendedAttributes operator()(std::u16string path) const {
    paths->push_back(path);
    return attributes("seen", std::string(path.begin(), path.end()));
  }
};

template <class Record>
void expectWatermarkRule() {
  Record record(StorageIRI(u"mem:///d/x"), false);
  // Without a stored watermark the record answers the attribute's own name.
  EXPECT_EQ(record.getWatermark(), "WATERMARK");
  record.withExtendedAttributes(attributes("WATERMARK", std::string("v17")));
  EXPECT_EQ(record.getWatermark(), "v17");
  record.withExtendedAttributes(attributes("WATERMARK", 17));
  try {
    record.getWatermark();
    FAIL() << "a watermark that is not text must be refused";
  } catch (std::out_of_range const& e) {
    EXPECT_STREQ(e.what(), "Attribute for given type with name WATERMARK not found.");
  }
  // A produced value follows the same rule.
  record.withExtendedAttributes([](std::u16string) { return attributes("WATERMARK", std::string("p1")); });
  EXPECT_EQ(record.getWatermark(), "p1");
}

template <class Record>
void expectLazyAttributes() {
  std::vector<std::u16string> paths;
  Record record(StorageIRI(u"mem:///old/name"), false);
  record.withExtendedAttributes(RecordingProducer{&paths});
  EXPECT_TRUE(paths.empty()) << "installing a producer must not run it";

  // Re-parenting produces the attributes first, with the old path, exactly once.
  record.setParentLocation(StorageIRI(u"mem:///new/place"));
  ASSERT_EQ(paths, std::vector<std::u16string>{u"/old/name"});
  EXPECT_EQ(record.getLocation(), StorageIRI(u"mem:///new/place/name"));
  EXPECT_EQ(record.getName(), u"name");
  EXPECT_EQ(record.getExtendedAttributes().getString("seen"), "/old/name");
  EXPECT_EQ(paths.size(), 1u) << "a produced value is kept";

  // A value replaces a producer that was never read: the producer never runs.
  std::vector<std::u16string> unread;
  record.withExtendedAttributes(RecordingProducer{&unread});
  record.withExtendedAttributes(attributes("plain", std::string("yes")));
  EXPECT_EQ(record.getExtendedAttributes().getString("plain"), "yes");
  EXPECT_TRUE(unread.empty());

  // A failing producer passes its failure on and runs again at the next read.
  int attempts = 0;
  record.withExtendedAttributes([&attempts](std::u16string) -> ExtendedAttributes {
    if (++attempts <= 2) throw std::runtime_error("store down");
    return attributes("ok", std::string("1"));
  });
  EXPECT_THROW(record.getExtendedAttributes(), std::runtime_error);
  EXPECT_THROW(record.setParentLocation(StorageIRI(u"mem:///elsewhere")), std::runtime_error);
  EXPECT_EQ(record.getLocation(), StorageIRI(u"mem:///new/place/name")) << "a failed re-parenting moves nothing";
  EXPECT_EQ(record.getExtendedAttributes().getString("ok"), "1");
  EXPECT_EQ(attempts, 3);
}

TEST(MetadataRecordsTest, FreshRecordsAreNamedAfterTheirLocationStampedNowAndHoldNoAttributes) {
  auto const before = now();
  FileMetadata file(StorageIRI(u"mem:///docs/a.txt"), true);
  FolderMetadata folder(StorageIRI(u"mem:///docs"), false);
  auto const after = now();

  EXPECT_EQ(file.getName(), u"a.txt");
  EXPECT_EQ(folder.getName(), u"docs");
  for (auto const time : {file.getLastModified(), folder.getLastModified()}) {
    EXPECT_GE(time, before);
    EXPECT_LE(time, after);
  }
  EXPECT_TRUE(file.getExtendedAttributes().empty());
  EXPECT_TRUE(folder.getExtendedAttributes().empty());
}

TEST(MetadataRecordsTest, WatermarkIsTheSentinelOrTheStoredTextAndRefusesOtherTypes) {
  expectWatermarkRule<FileMetadata>();
  expectWatermarkRule<FolderMetadata>();
}

TEST(MetadataRecordsTest, ProducerRunsOnceWithTheOldPathWhenReparented) {
  expectLazyAttributes<FileMetadata>();
  expectLazyAttributes<FolderMetadata>();
}

TEST(MetadataRecordsTest, VisitorsHandleBothKinds) {
  auto file = std::make_shared<FileMetadata>(StorageIRI(u"mem:///src/f.txt"), false);
  auto folder = std::make_shared<FolderMetadata>(StorageIRI(u"mem:///src/sub"), false);
  std::vector<FileOrFolderMetadata> records{file, folder};

  EXPECT_EQ(std::visit(GetNameVisitor(), records[0]), u"f.txt");
  EXPECT_EQ(std::visit(GetNameVisitor(), records[1]), u"sub");
  EXPECT_TRUE(std::visit(IsFileEntryVisitor(), records[0]));
  EXPECT_FALSE(std::visit(IsFileEntryVisitor(), records[1]));

  for (auto const& record : records) {
    std::visit(SetParentVisitor(StorageIRI(u"mem:///dst")), record);
    std::visit(FreezeMetadataVisitor(), record);
  }
  EXPECT_EQ(std::visit(GetLocationVisitor(), records[0]), StorageIRI(u"mem:///dst/f.txt"));
  EXPECT_EQ(std::visit(GetLocationVisitor(), records[1]), StorageIRI(u"mem:///dst/sub"));
  // The visitors act on the shared objects themselves.
  EXPECT_EQ(file->getLocation(), StorageIRI(u"mem:///dst/f.txt"));
  EXPECT_TRUE(file->isFrozen());
  EXPECT_TRUE(folder->isFrozen());
}

}  // namespace
