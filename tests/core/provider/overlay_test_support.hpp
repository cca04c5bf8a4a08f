// Helpers shared by the overlay provider's tests: a fixture with an overlay over a `mem`
// store of its own, the calls the tests make through it, and the names the tests use at
// file scope.
#pragma once

#include <core/provider/OverlayProvider.hpp>
#include <support/StreamContent.hpp>

#include <foundation/storage/provider/ByteStream.hpp>
#include <foundation/storage/provider/Exception.hpp>
#include <providers/mem/MemoryProvider.hpp>
#include <providers/mem/Operation.hpp>

#include <gtest/gtest.h>

#include <exception>
#include <memory>
#include <string>
#include <utility>

namespace overlay_test {

class OverlayFixture : public ::testing::Test {
 protected:
  using StorageIRI = foundation::storage::provider::StorageIRI;
  using ErrorCode = foundation::storage::provider::ErrorCode;

  // The overlay's IRI of `path`.
  StorageIRI at(std::u16string const& path) const { return StorageIRI(u"overlay", store->root(), path); }

  // The code and IRI of the host's Exception `call` throws; fails the test when it throws
  // nothing or something else.
  template <class Call>
  std::pair<ErrorCode, StorageIRI> failure(Call&& call) const {
    try {
      call();
    } catch (foundation::storage::provider::Exception const& e) {
      return {e.getErrorCode(), e.getIRI()};
    } catch (std::exception const& e) {
      ADD_FAILURE() << "not the host's Exception: " << e.what();
      return {ErrorCode::InvalidName, StorageIRI()};
    }
    ADD_FAILURE() << "no Exception thrown";
    return {ErrorCode::InvalidName, StorageIRI()};
  }

  // Replaces the file's content through the overlay, in one write.
  void write(std::u16string const& path, std::string const& content) const {
    foundation::storage::provider::ByteStreamOpenOptions options;
    options.truncate = true;
    auto stream = provider->doOpenStream(at(path), options);
    stream->write(content.data(), static_cast<long>(content.size()));
    stream->close();
  }

  std::string read(std::u16string const& path) const {
    auto stream = provider->doOpenReadOnlyStream(at(path));
    auto content = support::readAll(*stream);
    stream->close();
    return content;
  }

  std::shared_ptr<providers::mem::MemoryProvider> store = std::make_shared<providers::mem::MemoryProvider>();
  std::unique_ptr<storage::overlayprovider::OverlayProvider> provider =
      std::make_unique<storage::overlayprovider::OverlayProvider>(
          foundation::storage::provider::StorageItem(store, store->root()));
};

}  // namespace overlay_test

// The names every overlay provider test uses, at file scope.
namespace fsp = foundation::storage::provider;
using fsp::ErrorCode;
using fsp::StorageIRI;
using fsp::StorageItem;
using providers::mem::MemoryProvider;
using providers::mem::Operation;
using storage::overlayprovider::OverlayProvider;
