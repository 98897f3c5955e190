// Loopback URL checking: the input is "<required path>\n<URL text>". An
// accepted URL must be what the check demands, and any URL written out and
// parsed again must be the same URL.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "peer/StudioPeer.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string bytes(reinterpret_cast<const char*>(data), size);
    auto newline = bytes.find('\n');
    std::string path = newline == std::string::npos ? std::string() : bytes.substr(0, newline);
    std::string text = newline == std::string::npos ? bytes : bytes.substr(newline + 1);

    auto any = peer::URL::parse(text);
    if (any) {
        auto again = peer::URL::parse(any->absoluteString());
        if (!again || !(*again == *any)) abort();
    }
    auto url = peer::StudioPeer::loopback(text, path);
    if (!url) return 0;
    if (url->scheme != "http" || url->host != "127.0.0.1" || url->path != path) abort();
    if (!url->port || *url->port < 1024 || url->user || url->password || url->query) abort();
    // What the bridge would use is accepted again, unchanged.
    auto written = peer::StudioPeer::loopback(url->absoluteString(), path);
    if (!written || !(*written == *url)) abort();
    return 0;
}
