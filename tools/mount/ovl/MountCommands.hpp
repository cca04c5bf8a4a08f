// ovl mount, ovl umount and ovl status: the overlay as a file system (libfuse 3).
//
// `ovl mount STORE MOUNTPOINT` lays the overlay over the store folder and serves it at the
// mount point until it is unmounted (`ovl umount`, `fusermount3 -u`, `umount`) or the
// process gets SIGTERM, SIGINT or SIGHUP. Then it drains the overlay's queue into the
// store, showing what is still to go on a terminal, and says whether everything arrived
// (exit status 0, else 1 with one line per change that did not). By default it serves in
// the background: the command returns once the mount is in place (or with the reason it
// could not be), and the serving process writes its final report for `ovl umount`.
// `--foreground` keeps it attached to the terminal.
//
// `ovl umount MOUNTPOINT` unmounts and returns once the serving process has drained its
// queue, with its report. `ovl status MOUNTPOINT [--json]` shows what is still on its way
// to the store, the files open for writing, the changes that failed, the queue's figures
// and the cache's size and free space.
#pragma once

#include <ovl/Command.hpp>

#include <vector>

namespace ovl {

std::vector<Command> mountCommands();

}  // namespace ovl
