// The live connection to Studio: where its MCP endpoint and file service
// are, the bearer token for both, and the hand-over listener whose open
// connection is the link's lifetime (none for a link given at construction,
// which never expires). A plain value, copied freely; the listener is shared.
#pragma once
#include <memory>
#include <string>

#include "peer/URL.h"

namespace studiolink {

class HandshakeListener;

struct Link {
    peer::URL endpoint;
    peer::URL files;
    std::string token;
    std::shared_ptr<HandshakeListener> lifetime;
};

}  // namespace studiolink
