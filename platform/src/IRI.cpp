#include <foundation/network/IRI.hpp>

namespace foundation::network {

std::string IRI::toString() const {
  auto const& c = components_;
  std::string text = c.scheme + ":";
  // Storage paths are hierarchical: an authority (possibly empty) is always written when
  // the path is absolute, so "file" + "/x" reads "file:///x".
  bool const hasAuthority = !c.host.empty() || !c.userInfo.empty() || c.port != 0;
  if (hasAuthority || c.path.empty() || c.path.front() == '/') {
    text += "//";
    if (!c.userInfo.empty()) text += c.userInfo + "@";
    text += c.host;
    if (c.port != 0) text += ":" + std::to_string(c.port);
  }
  if (!c.path.empty() && c.path.front() != '/' && hasAuthority) text += "/";
  text += c.path;
  if (!c.query.empty()) text += "?" + c.query;
  if (!c.fragment.empty()) text += "#" + c.fragment;
  return text;
}

}  // namespace foundation::network
