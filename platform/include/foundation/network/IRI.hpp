// A network IRI as a set of UTF-8 components.
//
// This is the small value type the storage layer builds `StorageIRI`s from when it
// has the pieces of an address rather than its text (see `StorageIRI(IRI const&)`).
#pragma once

#include <string>

namespace foundation::network {

struct IRIComponents {
  std::string scheme;
  std::string userInfo;
  std::string host;
  unsigned port = 0;  // 0: no port
  std::string path;
  std::string query;     // empty: no query
  std::string fragment;  // empty: no fragment
};

class IRI {
 public:
  explicit IRI(IRIComponents components) : components_(std::move(components)) {}

  IRIComponents const& components() const { return components_; }
  std::string const& getScheme() const { return components_.scheme; }
  std::string const& getUserInfo() const { return components_.userInfo; }
  std::string const& getHost() const { return components_.host; }
  unsigned getPort() const { return components_.port; }
  std::string const& getPath() const { return components_.path; }
  std::string const& getQuery() const { return components_.query; }
  std::string const& getFragment() const { return components_.fragment; }

  // Renders "scheme:" ["//" [userinfo "@"] host [":" port]] path ["?" query] ["#" fragment].
  // The authority part is written when a host, user info or port is present.
  std::string toString() const;

 private:
  IRIComponents components_;
};

}  // namespace foundation::network
