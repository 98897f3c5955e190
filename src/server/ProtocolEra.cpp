#include "server/ProtocolEra.h"

#include "server/SessionSetup.h"

namespace server {

namespace {

const Json* metaIn(const Json& params) {
    if (!params.is_object()) return nullptr;
    auto meta = params.find("_meta");
    if (meta == params.end() || !meta->is_object()) return nullptr;
    return &*meta;
}

ProtocolEra::Refusal missing(std::string_view key) {
    return {ProtocolEra::invalidParams, "Missing _meta \"" + std::string(key) + "\".", nullptr};
}

}  // namespace

ProtocolEra::Era ProtocolEra::of(std::string_view method, const Json& params) {
    if (method == "server/discover") return Era::stateless;
    const Json* meta = metaIn(params);
    return meta && meta->contains(versionKey) ? Era::stateless : Era::handshake;
}

std::variant<ProtocolEra::Envelope, ProtocolEra::Refusal> ProtocolEra::envelope(const Json& params) {
    const Json* meta = metaIn(params);
    if (!meta) return missing(versionKey);
    auto version = meta->find(versionKey);
    if (version == meta->end() || !version->is_string()) return missing(versionKey);
    // Version first: a client told which revisions exist can retry with one
    // of them, whatever else its request lacks.
    if (version->get_ref<const std::string&>() != statelessRevision) {
        Json supported = Json::array();
        for (auto v : supportedVersions) supported.push_back(std::string(v));
        Json data = Json::object();
        data["supported"] = std::move(supported);
        data["requested"] = *version;
        return Refusal{unsupportedVersion, "Unsupported protocol version", std::move(data)};
    }
    auto capabilities = meta->find(capabilitiesKey);
    if (capabilities == meta->end() || !capabilities->is_object()) return missing(capabilitiesKey);

    Envelope envelope;
    // clientInfo is optional and only ever shown to the person; a malformed
    // one is as good as none.
    if (auto info = meta->find(clientInfoKey); info != meta->end()) {
        Json wrapped = Json::object();
        wrapped["clientInfo"] = *info;
        envelope.clientName = SessionSetup::clientNameIn(wrapped);
    }
    return envelope;
}

bool ProtocolEra::servedStatelessly(std::string_view method) { return method != "initialize" && method != "ping"; }

bool ProtocolEra::cacheable(std::string_view method) {
    return method == "server/discover" || method == "tools/list" || method == "prompts/list" ||
           method == "resources/list";
}

void ProtocolEra::frame(Json& result, std::string_view method, const Json& serverInfo) {
    if (!result.is_object()) return;
    result["resultType"] = "complete";
    Json& meta = result["_meta"];
    if (!meta.is_object()) meta = Json::object();
    meta[serverInfoKey] = serverInfo;
    if (cacheable(method)) {
        result["ttlMs"] = listTtlMs;
        result["cacheScope"] = listCacheScope;
    }
}

Json ProtocolEra::errorReply(const Json& id, const Refusal& refusal) {
    Json error = Json::object();
    error["code"] = refusal.code;
    error["message"] = refusal.message;
    if (!refusal.data.is_null()) error["data"] = refusal.data;
    Json reply = Json::object();
    reply["jsonrpc"] = "2.0";
    reply["id"] = id;
    reply["error"] = std::move(error);
    return reply;
}

}  // namespace server
