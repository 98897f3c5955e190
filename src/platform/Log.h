// The one diagnostic channel of the server: a line on standard error,
// "vantoric-studio-mcp: <message>", written in one write so lines from
// different threads never interleave. Callable from any thread. Never pass a
// token or a nonce.
#pragma once
#include <string_view>

namespace platform {

void log(std::string_view message);

}  // namespace platform
