#include <foundation/storage/provider/ExtendedAttributes.hpp>

#include <stdexcept>

namespace foundation::storage::provider {

boost::any const& ExtendedAttributes::getAttribute(std::string const& name) const {
  auto it = values_.find(name);
  if (it == values_.end()) throw std::out_of_range("No extended attribute named " + name);
  return it->second;
}

ExtendedAttributes& ExtendedAttributes::setAttribute(std::string const& name, boost::any value) {
  values_[name] = std::move(value);
  return *this;
}

std::vector<std::string> ExtendedAttributes::getNames() const {
  std::vector<std::string> names;
  names.reserve(values_.size());
  for (auto const& [name, value] : values_) names.push_back(name);
  return names;
}

std::string ExtendedAttributes::getString(std::string const& name) const {
  auto it = values_.find(name);
  if (it == values_.end()) return {};
  auto const* text = boost::any_cast<std::string>(&it->second);
  return text ? *text : std::string();
}

}  // namespace foundation::storage::provider
