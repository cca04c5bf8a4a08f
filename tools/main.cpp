// ovl: hands the arguments to runOvl, which is the whole program.
#include <ovl/Ovl.hpp>

#include <unistd.h>

#include <iostream>

int main(int argc, char** argv) {
  ovl::RunOptions options;
  options.errIsTerminal = isatty(STDERR_FILENO) == 1;
  return ovl::runOvl(std::vector<std::string>(argv + 1, argv + argc), std::cout, std::cerr, options);
}
