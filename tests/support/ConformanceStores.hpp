// The stores as the conformance suite puts them under test: each factory makes a harness
// on a fresh, empty working folder. Overlay instantiations wrap these to run the suite
// against the overlay over each store.
#pragma once

#include <support/ConformanceSuite.hpp>

namespace ovltest {

// A new MemoryProvider per test (name "conformance", the store's default features and
// no capacity limit); the root is mem://conformance/. `caseSensitive` picks the store's
// filename sensitivity; the test name is "mem" or "mem_case_insensitive".
StoreUnderTest memStore(bool caseSensitive = true);

// A new FileProvider per test over a new temporary folder (made with mkdtemp under the
// process's temporary directory, removed with everything in it at tear-down); the root
// is file:///<that folder>. The file system ignores write permission for root, so when
// the tests run as root the store only records the writable flag (enforcesWritable is
// false). Test name "file".
StoreUnderTest fileStore();

}  // namespace ovltest
