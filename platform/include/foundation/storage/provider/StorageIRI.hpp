// StorageIRI: the address of a file or folder in some storage provider.
//
// Text is UTF-16. Grammar of the text form:
//
//     iri    = scheme ":" [ "//" authority ] path [ "?" query ] [ "#" fragment ]
//            | scheme ":" "<" iri ">" path          ; a wrapped (nested) IRI
//     scheme = letter *( letter / digit / "+" / "-" / "." )
//
// A wrapped IRI is written inside angle brackets: `overlay:<file:///srv/data/>/docs/a.txt`
// wraps `file:///srv/data/`; nesting repeats. A wrapped IRI has no authority, query or
// fragment of its own. The path always begins with "/" (an empty path reads as "/").
//
// Values are immutable and cheap to copy (the inner IRI is shared).
#pragma once

#include <foundation/network/IRI.hpp>

#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace foundation::storage::provider {

class StorageIRI;

// The segments of a path, in order, without empty ones ("/a//b/" -> "a", "b").
class PathView {
 public:
  class PathViewIterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = std::u16string;
    using difference_type = std::ptrdiff_t;
    using pointer = std::u16string const*;
    using reference = std::u16string const&;

    PathViewIterator() = default;
    void increment() { ++pos_; }
    std::u16string const& dereference() const { return (*segments_)[pos_]; }
    bool equal(PathViewIterator const& other) const { return pos_ == other.pos_ && segments_ == other.segments_; }

    PathViewIterator& operator++() { increment(); return *this; }
    PathViewIterator operator++(int) { auto copy = *this; increment(); return copy; }
    std::u16string const& operator*() const { return dereference(); }
    std::u16string const* operator->() const { return &dereference(); }
    bool operator==(PathViewIterator const& other) const { return equal(other); }

   private:
    friend class PathView;
    PathViewIterator(std::vector<std::u16string> const* segments, std::size_t pos) : segments_(segments), pos_(pos) {}
    std::vector<std::u16string> const* segments_ = nullptr;
    std::size_t pos_ = 0;
  };

  explicit PathView(std::vector<std::u16string> segments) : segments_(std::move(segments)) {}
  PathViewIterator begin() const { return {&segments_, 0}; }
  PathViewIterator end() const { return {&segments_, segments_.size()}; }
  std::size_t size() const { return segments_.size(); }
  bool empty() const { return segments_.empty(); }
  std::vector<std::u16string> const& segments() const { return segments_; }

 private:
  std::vector<std::u16string> segments_;
};

class StorageIRI {
 public:
  // The IRI "file:///"; exists so that IRIs can live in containers and optionals.
  StorageIRI();

  // Parses `text`. Throws std::invalid_argument naming the text (control characters shown
  // as \uXXXX) when it has no scheme, unbalanced angle brackets, a control character, or a
  // malformed inner IRI.
  explicit StorageIRI(std::u16string const& text);
  explicit StorageIRI(char16_t const* text) : StorageIRI(std::u16string(text)) {}

  // Renders the components of a network IRI (UTF-8) and parses the result.
  explicit StorageIRI(network::IRI const& iri);

  // Joins: base's path, "/", `path` (which may hold several segments and may begin with
  // "/"), with repeated slashes collapsed. Keeps scheme, authority, inner IRI, and drops
  // query and fragment. Serves both "parent plus child name" and "base plus path".
  StorageIRI(StorageIRI const& base, std::u16string const& path);

  // A wrapped IRI: `scheme:<inner>path`.
  StorageIRI(std::u16string const& scheme, StorageIRI const& inner, std::u16string const& path);

  std::u16string const& getScheme() const { return scheme_; }
  // True for every IRI that is not wrapped: its canonical text always writes "//" and an
  // authority, possibly empty ("mem:/x" reads "mem:///x"). False for a wrapped IRI.
  bool hasAuthority() const { return hasAuthority_; }
  std::u16string const& getAuthority() const { return authority_; }
  std::u16string const& getPath() const { return path_; }
  std::optional<std::u16string> const& getQuery() const { return query_; }
  std::optional<std::u16string> const& getFragment() const { return fragment_; }

  bool hasInnerIRI() const { return inner_ != nullptr; }
  // Throws std::logic_error when there is no inner IRI.
  StorageIRI const& getInnerIRI() const;

  // False exactly for the path "/".
  bool hasParent() const;
  // Drops the last segment; keeps scheme, authority and inner IRI (query and fragment go).
  // Throws std::logic_error on the root.
  StorageIRI getParent() const;
  // The last non-empty segment; "" for "/".
  std::u16string getName() const;
  // The same scheme, authority and inner IRI with the path replaced by `path` (made
  // absolute; repeated slashes collapsed); query and fragment dropped.
  StorageIRI withPath(std::u16string const& path) const;
  PathView getPathView() const;

  // Removes "." and ".." segments (".." above the root stays at the root), collapses
  // repeated slashes, removes a trailing slash except on "/", lower-cases scheme and
  // authority. A wrapped IRI resolves its outer path only. The second form reuses a
  // temporary that is resolved already instead of copying it.
  StorageIRI getResolvedIRI() const&;
  StorageIRI getResolvedIRI() &&;

  // Same scheme and authority (compared case-insensitively), same inner IRI text, and
  // `other`'s path segments strictly extend ours. Paths are compared as written ("." and
  // ".." are not resolved first).
  bool isAncestorOf(StorageIRI const& other) const;

  // The canonical text.
  std::u16string const& toString() const { return text_; }
  std::string toUtf8() const;

  bool operator<(StorageIRI const& other) const { return text_ < other.text_; }
  bool operator==(StorageIRI const& other) const { return text_ == other.text_; }
  bool operator!=(StorageIRI const& other) const { return text_ != other.text_; }

 private:
  void render();

  std::u16string scheme_;
  bool hasAuthority_ = false;
  std::u16string authority_;
  std::shared_ptr<StorageIRI const> inner_;
  std::u16string path_;
  std::optional<std::u16string> query_;
  std::optional<std::u16string> fragment_;
  std::u16string text_;  // canonical text, rendered from the components above
};

// Writes the IRI's text as UTF-8.
std::ostream& operator<<(std::ostream& out, StorageIRI const& iri);

}  // namespace foundation::storage::provider

template <>
struct std::hash<foundation::storage::provider::StorageIRI> {
  std::size_t operator()(foundation::storage::provider::StorageIRI const& iri) const noexcept {
    return std::hash<std::u16string>{}(iri.toString());
  }
};
