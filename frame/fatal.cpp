#include "frame/fatal.h"

#include <cstdlib>
#include <iostream>

namespace zorp {

void fatal_whole_line(std::string_view line) {
  std::cerr << line << std::endl;
  std::abort();
}

void fatal(std::string_view message) {
  std::cerr << "zorp: " << message << std::endl;
  std::abort();
}

void fatal_declared_refusal(std::string_view operation) {
  fatal("zorp::cons: '", operation, "' is not allowed on an expression with declared constraints");
}

}  // namespace zorp
