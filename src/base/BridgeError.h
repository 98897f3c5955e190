// The system's one error type: a message for the person behind the agent (or
// the user of the installer). What it says is exactly what they read.
// Cancellation is not a BridgeError; it travels as Asio's operation_aborted
// (a boost::system::system_error), and a cancelled request gets no reply at
// all.
#pragma once
#include <exception>
#include <stdexcept>
#include <string>

class BridgeError : public std::runtime_error {
public:
    explicit BridgeError(const std::string& message) : std::runtime_error(message) {}
    const char* message() const noexcept { return what(); }
};
