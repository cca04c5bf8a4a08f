// ExtendedAttributes: a bag of named values a provider keeps beside a file or folder.
//
// Values are held as boost::any; providers store text as std::string. Every provider
// sets "WATERMARK" on files: a text that changes whenever the file's content changes.
#pragma once

#include <boost/any.hpp>

#include <map>
#include <string>
#include <vector>

namespace foundation::storage::provider {

class ExtendedAttributes {
 public:
  ExtendedAttributes() = default;

  bool hasAttribute(std::string const& name) const { return values_.count(name) != 0; }
  // Throws std::out_of_range naming the attribute when it is absent.
  boost::any const& getAttribute(std::string const& name) const;
  // Replaces any earlier value; returns *this for chaining.
  ExtendedAttributes& setAttribute(std::string const& name, boost::any value);
  void removeAttribute(std::string const& name) { values_.erase(name); }

  std::vector<std::string> getNames() const;
  std::size_t size() const { return values_.size(); }
  bool empty() const { return values_.empty(); }

  // The attribute's text when it holds a std::string; empty when absent or not text.
  std::string getString(std::string const& name) const;

 private:
  std::map<std::string, boost::any> values_;
};

}  // namespace foundation::storage::provider
