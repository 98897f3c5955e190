#include "BundleIdentity.h"

#include <plist/plist.h>

#include <fstream>
#include <iterator>
#include <system_error>

namespace studiosim {
namespace {

struct PlistDict {
    plist_t root = nullptr;
    ~PlistDict() {
        if (root) plist_free(root);
    }
    std::optional<std::string> string(const char* key) const {
        plist_t node = plist_dict_get_item(root, key);
        if (!node || plist_get_node_type(node) != PLIST_STRING) return std::nullopt;
        char* value = nullptr;
        plist_get_string_val(node, &value);
        if (!value) return std::nullopt;
        std::string text(value);
        free(value);
        return text;
    }
};

bool readPlist(const std::filesystem::path& file, PlistDict& dict) {
    std::ifstream in(file, std::ios::binary);
    if (!in) return false;
    std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (bytes.empty() || bytes.size() > 16 * 1024 * 1024) return false;
    plist_from_memory(bytes.data(), static_cast<uint32_t>(bytes.size()), &dict.root);
    return dict.root && plist_get_node_type(dict.root) == PLIST_DICT;
}

}  // namespace

std::string BundleIdentity::objectPath() const {
    std::string path = "/";
    for (char c : identifier) {
        bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
        path.push_back(c == '.' ? '/' : ok ? c : '_');
    }
    return path;
}

BundleIdentity readIdentity(const std::optional<std::string>& identifierOverride) {
    BundleIdentity identity;
    identity.version = "0";
    std::error_code ec;
    auto exe = std::filesystem::read_symlink("/proc/self/exe", ec);
    if (!ec) {
        // .../Name.app/Contents/MacOS/<executable>
        auto app = exe.parent_path().parent_path().parent_path();
        PlistDict dict;
        if (app.extension() == ".app" && readPlist(app / "Contents" / "Info.plist", dict)) {
            identity.bundle = app;
            if (auto id = dict.string("CFBundleIdentifier")) identity.identifier = *id;
            if (auto version = dict.string("CFBundleShortVersionString")) identity.version = *version;
        }
    }
    if (identifierOverride) identity.identifier = *identifierOverride;
    if (identity.identifier.empty()) identity.identifier = BundleIdentity::releaseIdentifier;
    return identity;
}

}  // namespace studiosim
