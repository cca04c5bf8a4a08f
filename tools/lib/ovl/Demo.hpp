// ovl demo: one realistic session against a slow store, run directly and then through the
// overlay, timed step by step and verified by checksums.
//
// The store is a local folder standing for a remote one (or any store named with --inner),
// reached through a throttle (latency per call and bandwidth). Each run works in its own
// folder of the store: it unpacks a tree of small files and a few large ones, reads
// everything back twice, lists every folder, renames a folder, has a file changed from
// the store's side and waits until the session sees the change, deletes a sub-tree and
// flushes. Afterwards the store's content (read directly, without throttle or overlay) is
// compared with a model of what the run did, file by file by BLAKE2b checksum.
#pragma once

#include <ovl/Command.hpp>
#include <ovl/Overlay.hpp>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace ovl {

struct DemoOptions {
  // The store: an IRI or a local folder, which must exist. Unset: a new temporary folder.
  std::optional<std::string> inner;
  double latencyMs = 20;
  double megabytesPerSecond = 50;  // 0: no bandwidth limit
  unsigned smallFiles = 300;
  unsigned largeFiles = 3;
  std::uint64_t largeFileBytes = 8u << 20;
  bool keep = false;  // leave the demo's folders in the store
  ToolSettings overlay;  // transfers and echo window of the overlay run
  // How long a run waits to see the change made from the store's side.
  std::chrono::milliseconds changeTimeout{60000};
  // Called after the overlay run's flush and before its verification, with the run's
  // folder as the store has it (no throttle, no overlay): lets a test change the store
  // behind the overlay's back.
  std::function<void(fsp::StorageItem const& storeFolder)> beforeVerify;
  // Called before each step of each run ("direct" or "overlay", the step's name).
  std::function<void(std::string const& run, std::string const& step)> onStep;
  // When it becomes true the demo stops after the current operation; the overlay run
  // then flushes and verifies what was acknowledged. The ovl program sets it on SIGINT.
  std::atomic<bool>* interrupt = nullptr;
};

// Runs the demo, printing the steps, the table and the verification on session.out() and
// a progress bar on session.err() when that is a terminal. Returns 0 when both runs
// verified, 1 when a verification found a difference (each difference is listed) or a
// step failed (CommandError/Exception propagate), 130 when interrupted.
int runDemo(Session& session, DemoOptions const& options);

}  // namespace ovl
