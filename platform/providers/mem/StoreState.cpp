#include "StoreState.hpp"

#include <foundation/storage/provider/Exception.hpp>

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <fl/i18n.hpp>

namespace providers::mem::detail {

using foundation::storage::events::EntryType;
using foundation::storage::events::Kind;
using foundation::storage::provider::ErrorCode;
using foundation::storage::provider::Exception;
using foundation::storage::provider::ExtendedFeature;
using foundation::storage::provider::StorageIRI;

StoreState::StoreState(MemoryProvider::Options const& options)
    : name(options.name),
      root(u"mem://" + options.name + u"/"),
      sensitivity(options.sensitivity),
      tree(options.sensitivity, now()),
      features(options.features),
      capacity(options.capacity),
      cacheSpaceAvailable(options.cacheSpaceAvailable) {}

boost::posix_time::ptime StoreState::now() { return boost::posix_time::microsec_clock::universal_time(); }

std::string StoreState::display(std::u16string const& text) {
  try {
    return fl::i18n::to_string(text);
  } catch (std::exception const&) {
    std::string out;
    for (auto c : text) out += (c < 0x80) ? static_cast<char>(c) : '?';
    return out;
  }
}

StorageIRI StoreState::iriOfPath(std::u16string const& path) const { return StorageIRI(root, path); }

std::u16string StoreState::joinPath(Segments const& segments, std::size_t count) {
  if (count == 0) return u"/";
  std::u16string path;
  for (std::size_t i = 0; i < count && i < segments.size(); ++i) {
    path += u'/';
    path += segments[i];
  }
  return path;
}

void StoreState::publish(Kind kind, Node const& node) {
  if (!events.hasSubscribers()) return;
  publishAt(kind, MemoryTree::keyPathOf(node), MemoryTree::pathOf(node), node.folder ? EntryType::Folder : EntryType::File);
}

void StoreState::publishAt(Kind kind, Segments keys, std::u16string const& path, EntryType type,
                           boost::property_tree::ptree details) {
  if (!events.hasSubscribers()) return;
  events.publish(Event{kind, std::move(keys), iriOfPath(path), type, std::move(details)});
}

void StoreState::publishMove(Segments fromKeys, std::u16string const& fromPath, Node const& moved) {
  if (!events.hasSubscribers()) return;
  auto const type = moved.folder ? EntryType::Folder : EntryType::File;
  auto const from = iriOfPath(fromPath);
  auto const to = iriOfPath(MemoryTree::pathOf(moved));
  boost::property_tree::ptree details;
  details.put("from", from.toUtf8());
  details.put("to", to.toUtf8());
  events.publish(Event{Kind::Removed, std::move(fromKeys), from, type, details});
  events.publish(Event{Kind::Added, MemoryTree::keyPathOf(moved), to, type, details});
}

void StoreState::checkRemovable(Node const& node, StorageIRI const& iri) const {
  if (node.data && (node.data->readers > 0 || node.data->writers > 0)) {
    bool const allowed = features.count(ExtendedFeature::RemoveOpenFiles) != 0 ||
                         (node.data->writers == 0 && features.count(ExtendedFeature::RemoveFilesOpenForReading) != 0);
    if (!allowed) {
      throw Exception(ErrorCode::InUse, iri, "a stream is open on " + display(MemoryTree::pathOf(node)));
    }
  }
  for (auto const& [key, child] : node.children) checkRemovable(*child, iri);
}

}  // namespace providers::mem::detail
