#include <system_error>

#include "platform/Bundle.h"
#include "platform/CodeSigning.h"
#include "platform/RunningApplications.h"

namespace fs = std::filesystem;

namespace platform {

namespace {

// The X of a requirement that is exactly `identifier "X"`.
std::optional<std::string> bareIdentifier(const std::string& requirement) {
    constexpr std::string_view prefix = "identifier \"";
    if (requirement.size() < prefix.size() + 1 || requirement.compare(0, prefix.size(), prefix) != 0 ||
        requirement.back() != '"')
        return std::nullopt;
    std::string identifier = requirement.substr(prefix.size(), requirement.size() - prefix.size() - 1);
    if (identifier.empty() || identifier.find('"') != std::string::npos) return std::nullopt;
    return identifier;
}

}  // namespace

bool LinuxCodeSigning::satisfies(pid_t pid, const std::string& requirement) const {
    auto identifier = bareIdentifier(requirement);
    if (!identifier) return false;
    std::error_code ec;
    fs::path link = fs::read_symlink(proc_ / std::to_string(pid) / "exe", ec);
    if (ec) return false;
    auto bundle = bundleOfExecutable(link.string(), bundles_);
    return bundle && !bundle->replaced && bundle->identifier == *identifier;
}

const CodeSigning& systemCodeSigning() {
    static LinuxCodeSigning signing(systemBundles());
    return signing;
}

}  // namespace platform
