#include <core/metadata/LazyExtendedAttributes.hpp>

#include <boost/any.hpp>

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <vector>

namespace storage::overlayprovider {

// The packed block: the number of attributes, then per attribute (in name order) the
// name's length, the name, the value's length and the value; lengths as 32-bit numbers.
namespace {

void putNumber(std::vector<char>& out, std::uint32_t n) {
  char bytes[sizeof n];
  std::memcpy(bytes, &n, sizeof n);
  out.insert(out.end(), bytes, bytes + sizeof n);
}

void putText(std::vector<char>& out, std::string const& text) {
  putNumber(out, static_cast<std::uint32_t>(text.size()));
  out.insert(out.end(), text.begin(), text.end());
}

class Unpacker {
 public:
  explicit Unpacker(char const* block) : at_(block) {}
  std::uint32_t number() {
    std::uint32_t n;
    std::memcpy(&n, at_, sizeof n);
    at_ += sizeof n;
    return n;
  }
  std::string text() {
    std::uint32_t const size = number();
    std::string result(at_, size);
    at_ += size;
    return result;
  }

 private:
  char const* at_;
};

// The text of a value, or null when it is not a std::string.
std::string const* textOf(boost::any const& value) { return boost::any_cast<std::string>(&value); }

}  // namespace

LazyExtendedAttributes::LazyExtendedAttributes() = default;

LazyExtendedAttributes::LazyExtendedAttributes(fsp::ExtendedAttributes const& value) { keep(value, false); }

LazyExtendedAttributes::LazyExtendedAttributes(Producer producer)
    : producer_(std::make_shared<Producer const>(std::move(producer))) {}

LazyExtendedAttributes::LazyExtendedAttributes(SharedProducer producer) : producer_(std::move(producer)) {}

void LazyExtendedAttributes::keep(fsp::ExtendedAttributes const& value, bool produced) {
  std::unique_ptr<fsp::ExtendedAttributes> whole;
  std::unique_ptr<char[]> packed;
  if (!value.empty()) {
    std::vector<char> block;
    putNumber(block, static_cast<std::uint32_t>(value.size()));
    for (auto const& name : value.getNames()) {
      std::string const* text = textOf(value.getAttribute(name));
      if (text == nullptr) {
        whole = std::make_unique<fsp::ExtendedAttributes>(value);
        break;
      }
      putText(block, name);
      putText(block, *text);
    }
    if (!whole) {
      packed = std::make_unique<char[]>(block.size());
      std::memcpy(packed.get(), block.data(), block.size());
    }
  }
  value_ = std::move(whole);
  packed_ = std::move(packed);
  if (produced) producer_.reset();
}

fsp::ExtendedAttributes LazyExtendedAttributes::value() const {
  if (value_) return *value_;
  fsp::ExtendedAttributes result;
  if (!packed_) return result;
  Unpacker in(packed_.get());
  for (std::uint32_t count = in.number(); count > 0; --count) {
    auto name = in.text();
    result.setAttribute(name, boost::any(in.text()));
  }
  return result;
}

std::string LazyExtendedAttributes::watermark() const {
  if (value_) return watermarkOf(*value_);
  if (packed_) {
    Unpacker in(packed_.get());
    for (std::uint32_t count = in.number(); count > 0; --count) {
      auto name = in.text();
      auto text = in.text();
      if (name == kWatermark) return text;
    }
  }
  return kWatermark;
}

std::string LazyExtendedAttributes::watermarkOf(fsp::ExtendedAttributes const& attributes) {
  std::string const name = kWatermark;
  if (!attributes.hasAttribute(name)) return name;
  std::string const* text = nullptr;
  try {
    text = textOf(attributes.getAttribute(name));
  } catch (std::exception const&) {
    text = nullptr;
  }
  if (text == nullptr) throw std::out_of_range("Attribute for given type with name " + name + " not found.");
  return *text;
}

}  // namespace storage::overlayprovider
