// The one way a violated precondition ends the process: "zorp: " + message, then abort().
#pragma once

#include <sstream>
#include <string_view>

namespace zorp {

// Writes "zorp: ", the message and a line end to std::cerr, flushes, aborts.
[[noreturn]] void fatal(std::string_view message);

// For the few messages that already carry the "zorp: " prefix themselves.
[[noreturn]] void fatal_whole_line(std::string_view line);

// Numbers are formatted by the stream, without padding.
template <class... Parts>
[[noreturn]] void fatal(const Parts&... parts) {
  std::ostringstream text;
  (text << ... << parts);
  fatal(std::string_view(text.str()));
}

// Refusal of an operation on an expression that carries declared constraints.
[[noreturn]] void fatal_declared_refusal(std::string_view operation);

}  // namespace zorp
