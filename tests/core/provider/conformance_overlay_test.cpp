// The conformance suite against the overlay over each store: the overlay answers as its
// inner store does, both at once and after its queue has been flushed to the store.
#include <core/provider/OverlayProvider.hpp>

#include <support/ConformanceStores.hpp>
#include <support/ConformanceSuite.hpp>

#include <boost/property_tree/ptree.hpp>

#include <string>

namespace fsp = foundation::storage::provider;

namespace {

// The overlay laid on the root of an inner store's fresh working folder.
class OverlayHarness : public ovltest::Harness {
 public:
  OverlayHarness(std::shared_ptr<ovltest::Harness> inner, bool flushAfterMutations, int transfers)
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
  ovltest::StoreCapabilities capabilities() const override {
    auto caps = inner_->capabilities();
    caps.reportsFilenameSensitivity = false;
    caps.createFolderRecursiveAcceptsExisting = false;
    caps.moveFolderNeverRefusesEmptyFolder = false;
    caps.watermarkBeforeFlush = false;
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
  std::shared_ptr<ovltest::Harness> inner_;
  bool const flushAfterMutations_;
  std::shared_ptr<storage::overlayprovider::OverlayProvider> provider_;
  fsp::StorageItem root_;
};

// `transfers`: the overlay's "overlay.transfers" (1: the single-worker queue).
ovltest::StoreUnderTest overlayOver(ovltest::StoreUnderTest inner, bool flushAfterMutations, int transfers = 1) {
  auto make = inner.make;
  return {"overlay_over_" + inner.name + (flushAfterMutations ? "_flushed" : "") +
              (transfers > 1 ? "_" + std::to_string(transfers) + "_transfers" : ""),
          [make, flushAfterMutations, transfers]() -> std::shared_ptr<ovltest::Harness> {
            return std::make_shared<OverlayHarness>(make(), flushAfterMutations, transfers);
          }};
}

}  // namespace

OVL_INSTANTIATE_CONFORMANCE_SUITE(Overlay, overlayOver(ovltest::memStore(true), false),
                                  overlayOver(ovltest::memStore(true), true),
                                  overlayOver(ovltest::memStore(false), false),
                                  overlayOver(ovltest::fileStore(), false),
                                  overlayOver(ovltest::fileStore(), true),
                                  overlayOver(ovltest::memStore(true), false, 8),
                                  overlayOver(ovltest::memStore(true), true, 8),
                                  overlayOver(ovltest::fileStore(), false, 8));
