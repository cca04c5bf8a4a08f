// StubProvider: a provider that supports nothing, for tests that need a provider object
// but not a store (registries, bundles). Every slot without a framework default throws
// Exception(NotSupported, iri); features are all absent; storage info is empty. Derive
// and override what a test needs.
//
// Header-only, so that test bundle modules (which do not link the platform) can use it.
#pragma once

#include <foundation/storage/provider/Exception.hpp>
#include <foundation/storage/provider/IProvider.hpp>

namespace support {

namespace fsp = foundation::storage::provider;

class StubProvider : public fsp::IProvider {
 public:
  void doCreateFile(fsp::StorageIRI const& iri) const override { unsupported(iri); }
  void doCreateFolder(fsp::StorageIRI const& iri) const override { unsupported(iri); }
  void doCreateFolderRecursive(fsp::StorageIRI const& iri) const override { unsupported(iri); }
  bool doFileExists(fsp::StorageIRI const& iri) const override { unsupported(iri); }
  bool doFolderExists(fsp::StorageIRI const& iri) const override { unsupported(iri); }
  void doRemoveFile(fsp::StorageIRI const& iri) const override { unsupported(iri); }
  void doMoveFile(fsp::StorageIRI const& src, fsp::StorageIRI const&, fsp::ReplacementPolicy const&) const override {
    unsupported(src);
  }
  void doRemoveFolder(fsp::StorageIRI const& iri) const override { unsupported(iri); }
  void doRemoveFolderRecursively(fsp::StorageIRI const& iri) const override { unsupported(iri); }
  void doMoveFolder(fsp::StorageIRI const& src, fsp::StorageIRI const&, fsp::ReplacementPolicy const&) const override {
    unsupported(src);
  }
  fsp::FileAttributes doGetFileAttributes(fsp::StorageIRI const& iri) const override { unsupported(iri); }
  fsp::FolderAttributes doGetFolderAttributes(fsp::StorageIRI const& iri) const override { unsupported(iri); }
  fsp::ByteStreamPtr doOpenStream(fsp::StorageIRI const& iri, fsp::ByteStreamOpenOptions const&) const override {
    unsupported(iri);
  }
  fsp::ByteStreamPtr doOpenReadOnlyStream(fsp::StorageIRI const& iri) const override { unsupported(iri); }
  fsp::FolderEntryIteratorPtr doListAll(fsp::StorageIRI const& iri) const override { unsupported(iri); }
  fsp::FolderEntryIteratorPtr doListFiles(fsp::StorageIRI const& iri) const override { unsupported(iri); }
  fsp::FolderEntryIteratorPtr doListFolders(fsp::StorageIRI const& iri) const override { unsupported(iri); }
  void doCopyFile(fsp::StorageIRI const& src, fsp::StorageIRI const&, fsp::ReplacementPolicy const&) const override {
    unsupported(src);
  }
  void doSetLastModified(fsp::StorageIRI const& iri, boost::posix_time::ptime const&) const override { unsupported(iri); }
  void doSetWritable(fsp::StorageIRI const& iri, bool) const override { unsupported(iri); }
  bool doHasFeature(fsp::ExtendedFeature const&) const override { return false; }
  fsp::ExtendedAttributes doGetExtendedAttributes(fsp::StorageIRI const& iri) const override { unsupported(iri); }
  fsp::ProviderStorageInfo doGetProviderStorageInfo(fsp::StorageIRI const&) const override { return {}; }

 protected:
  [[noreturn]] static void unsupported(fsp::StorageIRI const& iri) {
    throw fsp::Exception(fsp::ErrorCode::NotSupported, iri);
  }
};

}  // namespace support
