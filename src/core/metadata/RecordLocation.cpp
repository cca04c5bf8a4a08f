#include <core/metadata/RecordLocation.hpp>

#include <algorithm>
#include <utility>

namespace storage::overlayprovider {

namespace {

// A name that StorageIRI(parent, name) keeps as one last segment, unchanged.
bool isPlainName(std::u16string const& name) {
  return !name.empty() && std::none_of(name.begin(), name.end(), [](char16_t c) {
    return c == u'/' || c < 0x20 || c == 0x7F;
  });
}

}  // namespace

RecordLocation::RecordLocation(StorageIRI const& location) {
  if (location.hasParent() && location.getQuery() == std::nullopt && location.getFragment() == std::nullopt) {
    auto parent = std::make_shared<StorageIRI const>(location.getParent());
    auto name = location.getName();
    // Kept as parent plus name only when that joins back to the same IRI.
    if (isPlainName(name) && StorageIRI(*parent, name) == location) {
      parent_ = std::move(parent);
      name_ = std::move(name);
      return;
    }
  }
  keepWhole(location);
}

RecordLocation::RecordLocation(Parent parent, std::u16string name) {
  if (isPlainName(name)) {
    parent_ = std::move(parent);
    name_ = std::move(name);
    return;
  }
  keepWhole(StorageIRI(*parent, name));
}

void RecordLocation::keepWhole(StorageIRI location) {
  parent_.reset();
  name_ = location.getName();
  whole_ = std::make_unique<StorageIRI const>(std::move(location));
}

RecordLocation::StorageIRI RecordLocation::iri() const { return whole_ ? *whole_ : StorageIRI(*parent_, name_); }

std::u16string RecordLocation::path() const {
  if (whole_) return whole_->getPath();
  auto const& parentPath = parent_->getPath();
  if (parentPath.find(u"//") != std::u16string::npos) return iri().getPath();  // the join collapses those
  return parentPath.back() == u'/' ? parentPath + name_ : parentPath + u'/' + name_;
}

void RecordLocation::moveUnder(Parent parent) {
  if (isPlainName(name_)) {
    whole_.reset();
    parent_ = std::move(parent);
    return;
  }
  // The name stays as it was, whatever the join makes of it.
  whole_ = std::make_unique<StorageIRI const>(StorageIRI(*parent, name_));
  parent_.reset();
}

}  // namespace storage::overlayprovider
