// Exception: the storage layer's failure, an error category plus the IRI concerned.
#pragma once

#include <foundation/core/except/IException.hpp>
#include <foundation/storage/provider/ErrorCode.hpp>
#include <foundation/storage/provider/StorageIRI.hpp>

#include <string>

namespace foundation::storage::provider {

class Exception : public core::except::IException {
 public:
  // `detail`, when given, is appended to the message (for example the OS error text).
  Exception(ErrorCode code, StorageIRI iri, std::string detail = {});

  ErrorCode getErrorCode() const noexcept { return code_; }
  StorageIRI const& getIRI() const noexcept { return iri_; }
  std::string const& getDetail() const noexcept { return detail_; }

  // "<CodeName> (<n>): <iri>" and, with a detail, ": <detail>".
  char const* what() const noexcept override { return message_.c_str(); }

 private:
  ErrorCode code_;
  StorageIRI iri_;
  std::string detail_;
  std::string message_;
};

}  // namespace foundation::storage::provider
