// The system's one error type: a message for the person behind the agent (or
// the user of the installer). What it says is exactly what they read.
// Cancellation is not a BridgeError; it travels as its own error,
// `Cancellation`, which the request boundary lets pass without a reply.
#pragma once
#include <exception>
#include <stdexcept>
#include <string>

class BridgeError : public std::runtime_error {
public:
    explicit BridgeError(const std::string& message) : std::runtime_error(message) {}
    const char* message() const noexcept { return what(); }
};

// Thrown by work that stops because it was cancelled (a request cancelled by
// the agent, or the server shutting down).
class Cancellation : public std::exception {
public:
    const char* what() const noexcept override { return "The operation was cancelled."; }
};
