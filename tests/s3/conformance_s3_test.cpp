// The conformance suite against the s3 store on the test run's Ceph gateway, and against
// the overlay over it, checked at once and after each flush. Where an object store
// answers differently, the store's capabilities say so (see s3Store).
#include "s3_test_support.hpp"

#include <support/OverlayConformance.hpp>

OVL_INSTANTIATE_CONFORMANCE_SUITE(S3, ::s3test::s3Store(), ::ovltest::overlayOver(::s3test::s3Store(), false, 8),
                                  ::ovltest::overlayOver(::s3test::s3Store(), true, 8));
