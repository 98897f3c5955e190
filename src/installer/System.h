// What one installer run may touch of the machine: the user's files, the
// agents' programs, the users' home folders, and the environment the tool
// was started with (captured once, in main). References to services the
// caller owns (the real ones in main, fakes in tests); the installer reads
// nothing of the machine except through them and keeps nothing between runs.
#pragma once
#include "platform/CommandRunner.h"
#include "platform/Environment.h"
#include "platform/Files.h"
#include "platform/Users.h"

namespace BridgeInstaller {

struct System {
    platform::Files& files;
    platform::CommandRunner& commands;
    const platform::Users& users;
    const platform::Environment& environment;
};

}  // namespace BridgeInstaller
