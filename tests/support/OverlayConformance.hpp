// The overlay as the conformance suite puts it under test: laid on the root of an inner
// store's fresh working folder, checked at once or after each group of mutations has been
// flushed to the store beneath. Header-only, so that the test support library does not
// depend on the overlay; included by the test programs that link it.
#pragma once

#include <core/provider/OverlayProvider.hpp>

#include <support/ConformanceSuite.hpp>

#include <boost/property_tree/ptree.hpp>

#include <memory>
#include <string>

namespace ovltest {

namespace fsp = foundation::storage::provider;

// The overlay laid on the root of an inner store's fresh working folder.
class OverlayHarness : public Harness {
 public:
  OverlayHarness(std::shared_ptr<Harness> inner, bool flushAfterMutations, int transfers)
      : inner_(std::move(inner)), flushAfterMutations_(flushAfterMutations) {
    auto innerRoot = inner_->root();
    provider_ = std::make_shared<storage::overlayprovider::OverlayProvider>(innerRoot);
    boost::property_tree::ptree config;
    config.put("overlay.transfers", transfers);
    provider_->doConfigure(config);
    root_ = fsp::StorageItem(provider_, fsp::StorageIRI(u"overlay", innerRoot.getLocation(), u"/"));
  }

  fsp::StorageItem root() override { return root_; }
  // Names match as in the inner store, but the overlay leaves the sensitivity query at the
  // framework's default answer.
  StoreCapabilities capabilities() const override {
    auto caps = inner_->capabilities();
    caps.reportsFilenameSensitivity = false;
    caps.createFolderRecursiveAcceptsExisting = false;
    caps.moveFolderNeverRefusesEmptyFolder = false;
    caps.watermarkBeforeFlush = false;
    // The overlay knows an item from its folder's listing.
    if (flushAfterMutations_ && !caps.listingsCarrySetAttributes) caps.keepsSetAttributes = false;
    return caps;
  }
  void afterMutation() override {
    if (flushAfterMutations_) provider_->doFlushFilesystem();
  }
  void flush() override { provider_->doFlushFilesystem(); }
  void tearDown() override {
    try {
      provider_->doShutdown();
    } catch (...) {
      // Teardown must not throw; the suite has already checked what matters.
    }
    inner_->tearDown();
  }

 private:
  std::shared_ptr<Harness> inner_;
  bool const flushAfterMutations_;
  std::shared_ptr<storage::overlayprovider::OverlayProvider> provider_;
  fsp::StorageItem root_;
};

// `transfers`: the overlay's "overlay.transfers" (1: the single-worker queue).
inline StoreUnderTest overlayOver(StoreUnderTest inner, bool flushAfterMutations, int transfers = 1) {
  auto make = inner.make;
  return {"overlay_over_" + inner.name + (flushAfterMutations ? "_flushed" : "") +
              (transfers > 1 ? "_" + std::to_string(transfers) + "_transfers" : ""),
          [make, flushAfterMutations, transfers]() -> std::shared_ptr<Harness> {
            return std::make_shared<OverlayHarness>(make(), flushAfterMutations, transfers);
          }};
}

}  // namespace ovltest
