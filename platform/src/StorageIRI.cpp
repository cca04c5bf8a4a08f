#include <foundation/storage/provider/StorageIRI.hpp>

#include <fl/i18n.hpp>

#include <ostream>
#include <stdexcept>

namespace foundation::storage::provider {

namespace {

bool isAsciiLetter(char16_t c) { return (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z'); }
bool isAsciiDigit(char16_t c) { return c >= u'0' && c <= u'9'; }
bool isControl(char16_t c) { return c < 0x20 || c == 0x7F; }

std::u16string asciiLower(std::u16string text) {
  for (auto& c : text) {
    if (c >= u'A' && c <= u'Z') c = static_cast<char16_t>(c - u'A' + u'a');
  }
  return text;
}

// `text` for a message: UTF-8, with control characters written as \uXXXX so that the
// message shows where they are, and unpaired surrogates as '?'.
std::string printable(std::u16string const& text) {
  static char const hex[] = "0123456789ABCDEF";
  std::u16string shown;
  shown.reserve(text.size());
  for (auto c : text) {
    if (isControl(c)) {
      shown += u"\\u00";
      shown += static_cast<char16_t>(hex[(c >> 4) & 0xF]);
      shown += static_cast<char16_t>(hex[c & 0xF]);
    } else {
      shown += c;
    }
  }
  try {
    return fl::i18n::to_string(shown);
  } catch (std::exception const&) {
    std::string ascii;
    for (auto c : shown) ascii += (c >= 0x20 && c < 0x7F) ? static_cast<char>(c) : '?';
    return ascii;
  }
}

[[noreturn]] void malformed(std::u16string const& text, std::string const& why) {
  throw std::invalid_argument("Malformed IRI \"" + printable(text) + "\": " + why);
}

bool isValidScheme(std::u16string const& scheme) {
  if (scheme.empty() || !isAsciiLetter(scheme[0])) return false;
  for (auto c : scheme) {
    if (!isAsciiLetter(c) && !isAsciiDigit(c) && c != u'+' && c != u'-' && c != u'.') return false;
  }
  return true;
}

bool equalsIgnoringAsciiCase(std::u16string const& a, std::u16string const& b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    auto x = a[i], y = b[i];
    if (x >= u'A' && x <= u'Z') x = static_cast<char16_t>(x - u'A' + u'a');
    if (y >= u'A' && y <= u'Z') y = static_cast<char16_t>(y - u'A' + u'a');
    if (x != y) return false;
  }
  return true;
}

// The non-empty segments of a path.
std::vector<std::u16string> splitSegments(std::u16string const& path) {
  std::vector<std::u16string> segments;
  std::size_t start = 0;
  while (start <= path.size()) {
    auto end = path.find(u'/', start);
    if (end == std::u16string::npos) end = path.size();
    if (end > start) segments.emplace_back(path.substr(start, end - start));
    start = end + 1;
  }
  return segments;
}

std::u16string joinSegments(std::vector<std::u16string> const& segments) {
  if (segments.empty()) return u"/";
  std::u16string path;
  for (auto const& s : segments) {
    path += u'/';
    path += s;
  }
  return path;
}

bool isAsciiLowerCase(std::u16string const& text) {
  for (auto c : text) {
    if (c >= u'A' && c <= u'Z') return false;
  }
  return true;
}

// `path` without "." segments, with each ".." segment removing the one before it (none
// above the root), without repeated or trailing slashes; "/" when nothing is left. One
// pass, one allocation: this runs for every resolved IRI.
std::u16string resolvePath(std::u16string const& path) {
  std::u16string out;
  out.reserve(path.size() + 1);
  std::size_t i = 0;
  std::size_t const n = path.size();
  while (i < n) {
    if (path[i] == u'/') {
      ++i;
      continue;
    }
    auto end = path.find(u'/', i);
    if (end == std::u16string::npos) end = n;
    auto const length = end - i;
    if (length == 1 && path[i] == u'.') {
      // "." names the folder itself.
    } else if (length == 2 && path[i] == u'.' && path[i + 1] == u'.') {
      auto const last = out.rfind(u'/');
      if (last != std::u16string::npos) out.resize(last);
    } else {
      out += u'/';
      out.append(path, i, length);
    }
    i = end;
  }
  if (out.empty()) out.push_back(u'/');
  return out;
}

std::u16string collapseSlashes(std::u16string const& path) {
  std::u16string out;
  out.reserve(path.size());
  for (auto c : path) {
    if (c == u'/' && !out.empty() && out.back() == u'/') continue;
    out += c;
  }
  return out;
}

std::u16string normalisePath(std::u16string path) {
  if (path.empty() || path.front() != u'/') path.insert(path.begin(), u'/');
  return path;
}

}  // namespace

StorageIRI::StorageIRI() : scheme_(u"file"), hasAuthority_(true), path_(u"/") { render(); }

StorageIRI::StorageIRI(std::u16string const& text) {
  for (auto c : text) {
    if (isControl(c)) malformed(text, "control character");
  }
  auto colon = text.find(u':');
  if (colon == std::u16string::npos || colon == 0) malformed(text, "no scheme");
  if (!isAsciiLetter(text[0])) malformed(text, "scheme must begin with a letter");
  for (std::size_t i = 1; i < colon; ++i) {
    auto c = text[i];
    if (!isAsciiLetter(c) && !isAsciiDigit(c) && c != u'+' && c != u'-' && c != u'.') {
      malformed(text, "invalid character in scheme");
    }
  }
  scheme_ = text.substr(0, colon);
  std::size_t pos = colon + 1;

  if (pos < text.size() && text[pos] == u'<') {
    // Wrapped IRI: find the matching '>'.
    int depth = 0;
    std::size_t close = std::u16string::npos;
    for (std::size_t i = pos; i < text.size(); ++i) {
      if (text[i] == u'<') ++depth;
      if (text[i] == u'>' && --depth == 0) {
        close = i;
        break;
      }
    }
    if (close == std::u16string::npos) malformed(text, "unbalanced angle brackets");
    try {
      inner_ = std::make_shared<StorageIRI const>(text.substr(pos + 1, close - pos - 1));
    } catch (std::invalid_argument const& e) {
      malformed(text, std::string("inner IRI: ") + e.what());
    }
    std::u16string rest = text.substr(close + 1);
    if (rest.find_first_of(u"<>") != std::u16string::npos) malformed(text, "unbalanced angle brackets");
    path_ = normalisePath(rest);
    render();
    return;
  }

  if (text.find_first_of(u"<>", pos) != std::u16string::npos) malformed(text, "unbalanced angle brackets");
  // A plain IRI always has an authority, empty when the text has none: its canonical text
  // writes "//" ("mem:/x" reads "mem:///x"), so that both spellings are one IRI.
  hasAuthority_ = true;
  if (text.compare(pos, 2, u"//") == 0) {
    pos += 2;
    auto end = text.find_first_of(u"/?#", pos);
    if (end == std::u16string::npos) end = text.size();
    authority_ = text.substr(pos, end - pos);
    pos = end;
  }
  auto pathEnd = text.find_first_of(u"?#", pos);
  if (pathEnd == std::u16string::npos) pathEnd = text.size();
  path_ = normalisePath(text.substr(pos, pathEnd - pos));
  pos = pathEnd;
  if (pos < text.size() && text[pos] == u'?') {
    auto end = text.find(u'#', pos);
    if (end == std::u16string::npos) end = text.size();
    query_ = text.substr(pos + 1, end - pos - 1);
    pos = end;
  }
  if (pos < text.size() && text[pos] == u'#') fragment_ = text.substr(pos + 1);
  render();
}

StorageIRI::StorageIRI(network::IRI const& iri) : StorageIRI(fl::i18n::to_ustring(iri.toString())) {}

StorageIRI::StorageIRI(StorageIRI const& base, std::u16string const& path)
    : scheme_(base.scheme_), hasAuthority_(base.hasAuthority_), authority_(base.authority_), inner_(base.inner_) {
  for (auto c : path) {
    if (isControl(c)) malformed(base.toString() + u"/" + path, "control character in path");
  }
  path_ = collapseSlashes(base.path_ + u"/" + path);
  render();
}

StorageIRI::StorageIRI(std::u16string const& scheme, StorageIRI const& inner, std::u16string const& path)
    : scheme_(scheme), inner_(std::make_shared<StorageIRI const>(inner)), path_(normalisePath(path)) {
  if (!isValidScheme(scheme)) malformed(scheme + u":<" + inner.toString() + u">" + path, "invalid scheme");
  for (auto c : path) {
    if (isControl(c)) malformed(scheme + u":<" + inner.toString() + u">" + path, "control character in path");
  }
  render();
}

void StorageIRI::render() {
  std::size_t size = scheme_.size() + 3 + path_.size();
  size += inner_ ? inner_->text_.size() + 2 : authority_.size() + 2;
  if (query_) size += query_->size() + 1;
  if (fragment_) size += fragment_->size() + 1;
  text_.clear();
  text_.reserve(size);
  text_ += scheme_;
  text_ += u':';
  if (inner_) {
    text_ += u'<';
    text_ += inner_->toString();
    text_ += u'>';
  } else {
    text_ += u"//";
    text_ += authority_;
  }
  text_ += path_;
  if (query_) {
    text_ += u'?';
    text_ += *query_;
  }
  if (fragment_) {
    text_ += u'#';
    text_ += *fragment_;
  }
}

StorageIRI const& StorageIRI::getInnerIRI() const {
  if (!inner_) throw std::logic_error("IRI " + toUtf8() + " has no inner IRI");
  return *inner_;
}

bool StorageIRI::hasParent() const { return path_.find_first_not_of(u'/') != std::u16string::npos; }

StorageIRI StorageIRI::getParent() const {
  auto segments = splitSegments(path_);
  if (segments.empty()) throw std::logic_error("IRI " + toUtf8() + " has no parent");
  segments.pop_back();
  StorageIRI parent = *this;
  parent.path_ = joinSegments(segments);
  parent.query_.reset();
  parent.fragment_.reset();
  parent.render();
  return parent;
}

std::u16string StorageIRI::getName() const {
  auto const end = path_.find_last_not_of(u'/');
  if (end == std::u16string::npos) return {};
  auto const start = path_.rfind(u'/', end) + 1;  // path_ begins with '/'
  return path_.substr(start, end + 1 - start);
}

StorageIRI StorageIRI::withPath(std::u16string const& path) const {
  StorageIRI result = *this;
  result.path_ = collapseSlashes(normalisePath(path));
  result.query_.reset();
  result.fragment_.reset();
  result.render();
  for (auto c : path) {
    if (isControl(c)) malformed(result.text_, "control character in path");
  }
  return result;
}

PathView StorageIRI::getPathView() const { return PathView(splitSegments(path_)); }

StorageIRI StorageIRI::getResolvedIRI() const& { return StorageIRI(*this).getResolvedIRI(); }

StorageIRI StorageIRI::getResolvedIRI() && {
  auto path = resolvePath(path_);
  if (path == path_ && isAsciiLowerCase(scheme_) && isAsciiLowerCase(authority_)) return std::move(*this);
  scheme_ = asciiLower(scheme_);
  authority_ = asciiLower(authority_);
  path_ = std::move(path);
  render();
  return std::move(*this);
}

bool StorageIRI::isAncestorOf(StorageIRI const& other) const {
  if (!equalsIgnoringAsciiCase(scheme_, other.scheme_) || !equalsIgnoringAsciiCase(authority_, other.authority_)) {
    return false;
  }
  if ((inner_ == nullptr) != (other.inner_ == nullptr)) return false;
  if (inner_ && *inner_ != *other.inner_) return false;
  auto mine = splitSegments(path_);
  auto theirs = splitSegments(other.path_);
  if (theirs.size() <= mine.size()) return false;
  for (std::size_t i = 0; i < mine.size(); ++i) {
    if (mine[i] != theirs[i]) return false;
  }
  return true;
}

std::string StorageIRI::toUtf8() const {
  try {
    return fl::i18n::to_string(text_);
  } catch (std::exception const&) {
    // Unpaired surrogates: show them as U+FFFD so that messages and logs never fail.
    std::u16string repaired = text_;
    for (std::size_t i = 0; i < repaired.size(); ++i) {
      char16_t c = repaired[i];
      bool const high = c >= 0xD800 && c <= 0xDBFF;
      bool const low = c >= 0xDC00 && c <= 0xDFFF;
      if (high && i + 1 < repaired.size() && repaired[i + 1] >= 0xDC00 && repaired[i + 1] <= 0xDFFF) {
        ++i;
      } else if (high || low) {
        repaired[i] = 0xFFFD;
      }
    }
    return fl::i18n::to_string(repaired);
  }
}

std::ostream& operator<<(std::ostream& out, StorageIRI const& iri) { return out << iri.toUtf8(); }

}  // namespace foundation::storage::provider
