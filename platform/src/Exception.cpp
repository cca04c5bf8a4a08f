#include <foundation/storage/provider/Exception.hpp>

namespace foundation::storage::provider {

Exception::Exception(ErrorCode code, StorageIRI iri, std::string detail)
    : code_(code), iri_(std::move(iri)), detail_(std::move(detail)) {
  message_ = toString(code_) + " (" + std::to_string(static_cast<int>(code_)) + "): " + iri_.toUtf8();
  if (!detail_.empty()) message_ += ": " + detail_;
}

}  // namespace foundation::storage::provider
