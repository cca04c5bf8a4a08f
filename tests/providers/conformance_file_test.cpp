// The conformance suite against the `file` store, in a new temporary folder per test.
#include <support/ConformanceStores.hpp>
#include <support/ConformanceSuite.hpp>

OVL_INSTANTIATE_CONFORMANCE_SUITE(File, ::ovltest::fileStore());
