// The overlay's executor measured on its own: how many empty tasks per second one
// producer gets through the queue (execute, then waitForPendingToFinish).
//
// Built from the overlay's own executor sources into ovl with hidden symbols (see
// tools/CMakeLists.txt), so the overlay module ovl loads keeps its own copy of every
// class and static object.
#pragma once

namespace ovl {

double executorTasksPerSecond(long tasks);

}  // namespace ovl
