// Cancellation as the link throws it: Asio's own operation_aborted
// system_error, so that a cancelled socket wait, timer or channel and a
// cancellation the link decides on itself look the same to the caller, which
// lets them pass without an answer.
#pragma once
#include <exception>

namespace cancellation {

[[noreturn]] void raise();
bool is(const std::exception_ptr& error);
bool is(const std::exception& error);

}  // namespace cancellation
