// The content cache's space rule: at least 2 % of the volume must stay free after the
// cache grows, measured afresh on each question, with the capacity fixed at
// construction and the unsigned wrap for requests larger than the free space.
#include <core/content/LocalFSCacheSpaceArbitrator.hpp>

#include <boost/filesystem/exception.hpp>
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <limits>
#include <memory>
#include <stdexcept>
#include <vector>

using storage::overlayprovider::ICacheSpaceArbitrator;
using storage::overlayprovider::LocalFSCacheSpaceArbitrator;
using VolumeSpace = LocalFSCacheSpaceArbitrator::VolumeSpace;

namespace {

// A volume whose figures the test sets; records the paths it was asked about.
struct FakeVolume {
  VolumeSpace space;
  std::vector<fl::filesystem::path> asked;

  LocalFSCacheSpaceArbitrator::SpaceQuery query() {
    return [this](fl::filesystem::path const& p) {
      asked.push_back(p);
      return space;
    };
  }
};

TEST(LocalFSCacheSpaceArbitrator, KeepsTwoPercentOfTheVolumeFree) {
  FakeVolume volume{{1000, 500}, {}};
  LocalFSCacheSpaceArbitrator arbitrator("/cache/V1.0", volume.query());
  EXPECT_EQ(arbitrator.getCapacity(), 1000u);

  // 500 free: the cache may take up to 480 bytes (20 = 2 % must remain).
  EXPECT_TRUE(arbitrator.spaceAvailable(0));
  EXPECT_TRUE(arbitrator.spaceAvailable(479));
  EXPECT_TRUE(arbitrator.spaceAvailable(480));  // exactly 98 % used is still allowed
  EXPECT_FALSE(arbitrator.spaceAvailable(481));
  EXPECT_FALSE(arbitrator.spaceAvailable(500));

  // A volume that is 99 % full refuses even an empty file.
  volume.space.available = 10;
  EXPECT_FALSE(arbitrator.spaceAvailable(0));
  // Exactly 2 % free: nothing more may come, but nothing is refused at 0.
  volume.space.available = 20;
  EXPECT_TRUE(arbitrator.spaceAvailable(0));
  EXPECT_FALSE(arbitrator.spaceAvailable(1));

  // Every question measured the data directory's volume again.
  ASSERT_FALSE(volume.asked.empty());
  for (auto const& p : volume.asked) EXPECT_EQ(p, fl::filesystem::path("/cache/V1.0"));
}

TEST(LocalFSCacheSpaceArbitrator, RequestLargerThanTheFreeSpaceWrapsAndIsAdmitted) {
  FakeVolume volume{{1000, 10}, {}};
  LocalFSCacheSpaceArbitrator arbitrator("/cache", volume.query());
  EXPECT_FALSE(arbitrator.spaceAvailable(5));
  // 11 > 10 available: the unsigned difference wraps around and the answer is yes.
  EXPECT_TRUE(arbitrator.spaceAvailable(11));
  EXPECT_TRUE(arbitrator.spaceAvailable(1000));
  // The difference is taken modulo 2^64: 10 - (2^64 - 1) leaves 11 "free", which is
  // 98.9 % used and refused.
  EXPECT_FALSE(arbitrator.spaceAvailable(std::numeric_limits<unsigned long>::max()));
  volume.space.available = 0;
  EXPECT_FALSE(arbitrator.spaceAvailable(0));
  EXPECT_TRUE(arbitrator.spaceAvailable(1));
}

TEST(LocalFSCacheSpaceArbitrator, CapacityIsMeasuredOnceAndEvictionNeedsNoBookkeeping) {
  FakeVolume volume{{1000, 100}, {}};
  std::unique_ptr<ICacheSpaceArbitrator> arbitrator =
      std::make_unique<LocalFSCacheSpaceArbitrator>("/cache", volume.query());
  EXPECT_EQ(volume.asked.size(), 1u);  // the constructor measured the capacity

  // The volume grows to 10000 bytes with 100 free: still judged against 1000, so 100
  // free is 10 % and 80 bytes may come.
  volume.space = {10000, 100};
  EXPECT_TRUE(arbitrator->spaceAvailable(80));
  EXPECT_FALSE(arbitrator->spaceAvailable(81));

  // An eviction frees space on the volume; the next question sees it without help.
  arbitrator->setItemWasRemoved();
  volume.space.available = 900;
  EXPECT_TRUE(arbitrator->spaceAvailable(880));
}

TEST(LocalFSCacheSpaceArbitrator, MeasurementFailuresPropagate) {
  // Capacity cannot be measured: the constructor throws what the measurement threw.
  EXPECT_THROW(LocalFSCacheSpaceArbitrator("/cache", [](fl::filesystem::path const&) -> VolumeSpace {
                 throw std::runtime_error("volume gone");
               }),
               std::runtime_error);
  EXPECT_THROW(LocalFSCacheSpaceArbitrator("/cache", LocalFSCacheSpaceArbitrator::SpaceQuery()),
               std::invalid_argument);

  // Free space cannot be measured later: spaceAvailable throws, never guesses.
  bool failing = false;
  LocalFSCacheSpaceArbitrator arbitrator("/cache", [&failing](fl::filesystem::path const&) {
    if (failing) throw std::runtime_error("volume gone");
    return VolumeSpace{1000, 500};
  });
  failing = true;
  EXPECT_THROW(arbitrator.spaceAvailable(1), std::runtime_error);
}

TEST(LocalFSCacheSpaceArbitrator, MeasuresTheRealVolume) {
  std::filesystem::path const dir = std::filesystem::temp_directory_path();
  VolumeSpace const space = LocalFSCacheSpaceArbitrator::measureVolume(dir);
  EXPECT_GT(space.capacity, 0u);
  EXPECT_LE(space.available, space.capacity);

  LocalFSCacheSpaceArbitrator arbitrator(dir);
  EXPECT_EQ(arbitrator.getCapacity(), space.capacity);
  // Asking for more than the whole volume wraps and is admitted on any volume.
  EXPECT_TRUE(arbitrator.spaceAvailable(static_cast<unsigned long>(space.capacity) + 1));

  // A path that does not exist cannot be measured: Boost's error, naming the path.
  std::filesystem::path const missing = dir / "no-such-dir-for-the-arbitrator" / "V1.0";
  try {
    LocalFSCacheSpaceArbitrator bad(missing);
    FAIL() << "measuring a missing path must fail";
  } catch (boost::filesystem::filesystem_error const& e) {
    EXPECT_NE(std::string(e.what()).find("no-such-dir-for-the-arbitrator"), std::string::npos) << e.what();
  }
}

}  // namespace
