// ovl: the command-line program, callable in-process.
//
//   ovl [GLOBAL FLAGS] COMMAND [ARGS...]
//
// `runOvl` is the whole program: it parses the arguments, runs one command and returns
// the exit status. Output goes to `out` (listings, file content) and `err` (errors,
// progress); nothing is written to the process's own streams.
//
// Exit status: 0 on success; 1 when the command failed, after one line
// "ovl <cmd>: <IRI>: <cause>" on `err`; 2 on bad usage (unknown command or flag, missing
// or extra argument, bad flag value), after a line naming the problem and the usage line.
#pragma once

#include <foundation/storage/provider/ProviderRegistry.hpp>

#include <ostream>
#include <string>
#include <vector>

namespace ovl {

struct RunOptions {
  // The registry that resolves IRIs; used as is (never shut down by runOvl). When null,
  // runOvl makes one with the file, mem and throttle stores and shuts it down at the end.
  foundation::storage::provider::ProviderRegistry* registry = nullptr;
  // Whether `err` is a terminal: progress bars are drawn there for large files.
  bool errIsTerminal = false;
};

// Runs `args` (the program's arguments without the program name).
int runOvl(std::vector<std::string> args, std::ostream& out, std::ostream& err, RunOptions const& options = {});

}  // namespace ovl
