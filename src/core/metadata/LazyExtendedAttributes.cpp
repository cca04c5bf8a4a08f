#include <core/metadata/LazyExtendedAttributes.hpp>

#include <boost/any.hpp>

#include <stdexcept>

namespace storage::overlayprovider {

LazyExtendedAttributes::LazyExtendedAttributes() : value_(std::make_unique<fsp::ExtendedAttributes>()) {}

LazyExtendedAttributes::LazyExtendedAttributes(fsp::ExtendedAttributes value)
    : value_(std::make_unique<fsp::ExtendedAttributes>(std::move(value))) {}

LazyExtendedAttributes::LazyExtendedAttributes(Producer producer) : producer_(std::move(producer)) {}

fsp::ExtendedAttributes const& LazyExtendedAttributes::get(std::u16string const& path) {
  if (!value_) {
    value_ = std::make_unique<fsp::ExtendedAttributes>(producer_ ? producer_(path) : fsp::ExtendedAttributes());
  }
  return *value_;
}

std::string LazyExtendedAttributes::watermarkOf(fsp::ExtendedAttributes const& attributes) {
  std::string const name = kWatermark;
  if (!attributes.hasAttribute(name)) return name;
  std::string const* text = nullptr;
  try {
    text = boost::any_cast<std::string>(&attributes.getAttribute(name));
  } catch (std::exception const&) {
    text = nullptr;
  }
  if (text == nullptr) throw std::out_of_range("Attribute for given type with name " + name + " not found.");
  return *text;
}

}  // namespace storage::overlayprovider
