#include <core/content/LocalFSCacheSpaceArbitrator.hpp>

#include <boost/filesystem/operations.hpp>

#include <stdexcept>
#include <utility>

namespace storage::overlayprovider {

namespace {

LocalFSCacheSpaceArbitrator::SpaceQuery checked(LocalFSCacheSpaceArbitrator::SpaceQuery query) {
  if (!query) {
    throw std::invalid_argument("LocalFSCacheSpaceArbitrator: the space query must not be empty");
  }
  return query;
}

}  // namespace

LocalFSCacheSpaceArbitrator::VolumeSpace LocalFSCacheSpaceArbitrator::measureVolume(
    fl::filesystem::path const& p) {
  boost::filesystem::space_info const info = boost::filesystem::space(boost::filesystem::path(p.native()));
  return VolumeSpace{static_cast<std::uint64_t>(info.capacity), static_cast<std::uint64_t>(info.available)};
}

LocalFSCacheSpaceArbitrator::LocalFSCacheSpaceArbitrator(fl::filesystem::path path, SpaceQuery query)
    : path_(std::move(path)), query_(checked(std::move(query))), capacity_(query_(path_).capacity) {}

bool LocalFSCacheSpaceArbitrator::spaceAvailable(unsigned long bytes) const {
  std::uint64_t const available = query_(path_).available;
  // Unsigned on purpose: more bytes than are available wraps to a huge remainder.
  std::uint64_t const remaining = available - static_cast<std::uint64_t>(bytes);
  double const usedPercent =
      100.0 - (static_cast<double>(remaining) / static_cast<double>(capacity_)) * 100.0;
  return usedPercent <= 98.0;
}

void LocalFSCacheSpaceArbitrator::setItemWasRemoved() {}

}  // namespace storage::overlayprovider
