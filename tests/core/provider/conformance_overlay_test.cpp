// The conformance suite against the overlay over each store: the overlay answers as its
// inner store does, both at once and after its queue has been flushed to the store.
#include <support/ConformanceStores.hpp>
#include <support/ConformanceSuite.hpp>
#include <support/OverlayConformance.hpp>

using ovltest::overlayOver;

OVL_INSTANTIATE_CONFORMANCE_SUITE(Overlay, overlayOver(ovltest::memStore(true), false),
                                  overlayOver(ovltest::memStore(true), true),
                                  overlayOver(ovltest::memStore(false), false),
                                  overlayOver(ovltest::fileStore(), false),
                                  overlayOver(ovltest::fileStore(), true),
                                  overlayOver(ovltest::memStore(true), false, 8),
                                  overlayOver(ovltest::memStore(true), true, 8),
                                  overlayOver(ovltest::fileStore(), false, 8));
