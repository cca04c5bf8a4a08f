#include <core/metadata/CacheKey.hpp>

#include <core/util/IRIHelpers.hpp>

#include <algorithm>
#include <string>

namespace storage::overlayprovider {

namespace {

// A scheme that getInnerMostURL keeps as it is: lower case, no "+".
bool isKeyScheme(std::u16string const& scheme) {
  if (scheme.empty()) return false;
  return std::all_of(scheme.begin(), scheme.end(), [](char16_t c) {
    return (c >= u'a' && c <= u'z') || (c >= u'0' && c <= u'9') || c == u'.' || c == u'-';
  });
}

// A resolved path ("/" or "/a/b": no empty, "." or ".." segment, no trailing slash) of
// characters that the text conversions and the parser keep as they are.
bool isKeyPath(std::u16string const& path) {
  if (path.empty() || path.front() != u'/') return false;
  if (path.size() == 1) return true;
  std::size_t segment = 1;
  for (std::size_t i = 1; i <= path.size(); ++i) {
    if (i == path.size() || path[i] == u'/') {
      std::size_t const length = i - segment;
      if (length == 0) return false;
      if (path[segment] == u'.' && (length == 1 || (length == 2 && path[segment + 1] == u'.'))) return false;
      segment = i + 1;
      continue;
    }
    char16_t const c = path[i];
    if (c < 0x20 || c == 0x7F || (c >= 0xD800 && c <= 0xDFFF)) return false;
    if (c == u'?' || c == u'#' || c == u'<' || c == u'>' || c == u'%' || c == u'\\') return false;
  }
  return true;
}

}  // namespace

bool CacheKey::isKeyForm(StorageIRI const& iri) {
  if (!isKeyScheme(iri.getScheme()) || !isKeyPath(iri.getPath()) || iri.getQuery() || iri.getFragment()) return false;
  if (!iri.hasInnerIRI()) return iri.getAuthority().empty();
  if (iri.getScheme() == u"overlay") return false;
  StorageIRI const* innermost = &iri.getInnerIRI();
  while (innermost->hasInnerIRI()) innermost = &innermost->getInnerIRI();
  return innermost->getPath() != u"/";
}

std::u16string_view CacheKey::parentTextOf(std::u16string_view text, std::size_t pathStart) {
  std::size_t const slash = text.rfind(u'/');
  return text.substr(0, slash == pathStart ? pathStart + 1 : slash);
}
std::u16string_view CacheKey::parentTextOf(StorageIRI const& key) {
  std::u16string_view const text = key.toString();
  return parentTextOf(text, text.size() - key.getPath().size());
}

StorageIRI CacheKey::getInnerMostURL(StorageIRI const& iri) {
  return isKeyForm(iri) ? iri : storage::overlayprovider::getInnerMostURL(iri);
}

CacheKey::CacheKey(StorageIRI const& iri) : plain_(isKeyForm(iri)), key_(&iri) {
  if (!plain_) {
    mapped_ = storage::overlayprovider::getInnerMostURL(iri);
    key_ = &*mapped_;
    plain_ = isKeyForm(*mapped_);
  }
}

}  // namespace storage::overlayprovider
