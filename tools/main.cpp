// ovl: hands the arguments to runOvl, which is the whole program.
#include <ovl/Ovl.hpp>

#include <unistd.h>

#include <csignal>
#include <iostream>

int main(int argc, char** argv) {
  // A reader that goes away (ovl cat big | head) makes the next write fail instead of
  // killing the program, so that the overlay still flushes and removes its cache folder.
  std::signal(SIGPIPE, SIG_IGN);
  // A file-size limit (ulimit -f) makes a write fail with "File too large", reported like
  // a full disk, instead of killing the program before the overlay has flushed.
  std::signal(SIGXFSZ, SIG_IGN);
  ovl::RunOptions options;
  options.errIsTerminal = isatty(STDERR_FILENO) == 1;
  return ovl::runOvl(std::vector<std::string>(argv + 1, argv + argc), std::cout, std::cerr, options);
}
