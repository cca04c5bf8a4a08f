// The conformance suite against the `mem` store, case-sensitive and case-insensitive.
#include <support/ConformanceStores.hpp>
#include <support/ConformanceSuite.hpp>

OVL_INSTANTIATE_CONFORMANCE_SUITE(Mem, ::ovltest::memStore(true), ::ovltest::memStore(false));
