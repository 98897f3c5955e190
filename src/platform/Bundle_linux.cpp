#include <plist/plist.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>

#include "platform/Bundle.h"

namespace platform {

std::optional<std::filesystem::path> BundleInfo::executablePath() const {
    if (!executable || executable->empty()) return std::nullopt;
    return url / "Contents" / "MacOS" / *executable;
}

namespace {

std::optional<std::string> stringValue(plist_t dict, const char* key) {
    plist_t node = plist_dict_get_item(dict, key);
    if (!node || plist_get_node_type(node) != PLIST_STRING) return std::nullopt;
    char* raw = nullptr;
    plist_get_string_val(node, &raw);
    if (!raw) return std::nullopt;
    std::string value(raw);
    free(raw);
    return value;
}

}  // namespace

std::optional<BundleInfo> LinuxBundles::open(const std::filesystem::path& app) const {
    std::error_code ec;
    if (!std::filesystem::is_directory(app, ec)) return std::nullopt;
    std::ifstream in(app / "Contents" / "Info.plist", std::ios::binary);
    if (!in) return std::nullopt;
    std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (in.bad() || bytes.empty()) return std::nullopt;

    plist_t root = nullptr;
    plist_from_memory(bytes.data(), static_cast<uint32_t>(bytes.size()), &root);
    if (!root) return std::nullopt;
    std::unique_ptr<void, void (*)(plist_t)> guard(root, plist_free);
    if (plist_get_node_type(root) != PLIST_DICT) return std::nullopt;

    BundleInfo info;
    info.url = app;
    info.identifier = stringValue(root, "CFBundleIdentifier");
    info.shortVersion = stringValue(root, "CFBundleShortVersionString");
    info.executable = stringValue(root, "CFBundleExecutable");
    return info;
}

const Bundles& systemBundles() {
    static const auto* bundles = new LinuxBundles;
    return *bundles;
}

}  // namespace platform
