// The argument or environment vector of an exec, made ahead of the fork: a
// child between fork and exec may not allocate. Pinned in place (not
// copyable, not movable), since the pointers aim into its own strings.
#pragma once
#include <string>
#include <vector>

#include "platform/Environment.h"

namespace platform {

class ExecStrings {
public:
    explicit ExecStrings(std::vector<std::string> strings) : strings_(std::move(strings)) { point(); }
    // NAME=value, one per variable.
    explicit ExecStrings(const Environment& environment) {
        for (const auto& [name, value] : environment) strings_.push_back(name + "=" + value);
        point();
    }
    ExecStrings(const ExecStrings&) = delete;
    ExecStrings& operator=(const ExecStrings&) = delete;

    // Null-terminated, as exec and posix_spawn take it.
    char* const* data() { return pointers_.data(); }

private:
    void point() {
        for (auto& s : strings_) pointers_.push_back(s.data());
        pointers_.push_back(nullptr);
    }

    std::vector<std::string> strings_;
    std::vector<char*> pointers_;
};

}  // namespace platform
