#include "Common/Network/ZUBHttp.h"

#include "Common/ZUBProHelper.h"

#include <typeinfo>

const char* const responseErrorKey = "KEY_RESPONSE_ERROR_KEY";

namespace {
constexpr std::size_t kGzipThreshold = 256;
}

ZUBHttp& ZUBHttp::getInstance() {
    static ZUBHttp* instance = new ZUBHttp();  // never destroyed
    return *instance;
}

std::optional<zub::Value> ZUBHttp::httpPost(const zub::Data& body, std::int64_t maxTime, const std::string& url) {
    try {
        auto request = getCommonRequest(maxTime, url);
        if (!request) return std::nullopt;
        // When wrapping fails the request still goes out, empty and without an encoding.
        request->body = compressData(body, *request).value_or(zub::Data{});
        return handleReturnData(*request);
    } catch (const std::exception& e) {
        ZUBProHelper::trackException(e);
        return std::nullopt;
    }
}

std::optional<zub::HttpRequest> ZUBHttp::getCommonRequest(std::int64_t maxTime, const std::string& url) {
    if (url.empty()) return std::nullopt;
    zub::HttpRequest request;
    request.method = "POST";
    request.url = url;
    request.timeoutSeconds = static_cast<double>(maxTime);
    request.setHeader("Connection", "keep-alive");
    request.setHeader("Content-Type", "json");
    return request;
}

std::optional<zub::Data> ZUBHttp::compressData(const zub::Data& body, zub::HttpRequest& request) {
    zub::Data wire;
    if (body.size() < kGzipThreshold) {
        wire = body;
        request.setHeader("Content-Encoding", "rc4");
    } else {
        zub::Data compressed;
        if (ZUBProHelper::GZip(body, &compressed) != 0) {
            ZUBProHelper::LogDebug("Failed to gzip data.");
            return std::nullopt;
        }
        wire.reserve(compressed.size() + 4);
        const auto length = static_cast<std::uint32_t>(body.size());
        wire.push_back(static_cast<std::uint8_t>(length >> 24));
        wire.push_back(static_cast<std::uint8_t>(length >> 16));
        wire.push_back(static_cast<std::uint8_t>(length >> 8));
        wire.push_back(static_cast<std::uint8_t>(length));
        wire.insert(wire.end(), compressed.begin(), compressed.end());
        request.setHeader("Content-Encoding", "rc4,gzip");
    }
    ZUBProHelper::ChiperRC4(wire);
    return wire;
}

std::optional<zub::Value> ZUBHttp::handleReturnData(const zub::HttpRequest& request) {
    zub::HttpResponse response;
    if (auto error = zub::HttpClient::send(request, response)) {
        ZUBProHelper::LogDebug("Failed to send request for reason: %@", error->fullDescription());
        zub::Value reply = zub::Value::object();
        reply[responseErrorKey] = error->toValue();
        return reply;
    }
    if (response.status != 200) {
        ZUBProHelper::LogDebug("Receive invalid response: %ld", response.status);
        if (!response.body.empty()) {
            ZUBProHelper::LogDebug("[ERROR] %@", std::string(response.body.begin(), response.body.end()));
        }
        return std::nullopt;
    }
    return returnDataToDict(std::move(response.body));
}

std::optional<zub::Value> ZUBHttp::returnDataToDict(zub::Data data) {
    if (data.empty()) return std::nullopt;
    try {
        ZUBProHelper::ChiperRC4(data);
        zub::Value parsed = zub::Value::parse(data.begin(), data.end());
        // The platform's reader takes only a dictionary or an array at the top.
        if (!parsed.is_object() && !parsed.is_array()) {
            ZUBProHelper::LogDebug("Decode JSON error : %@", "JSON text did not start with array or object");
            return std::nullopt;
        }
        return parsed;
    } catch (const zub::Value::parse_error& e) {
        ZUBProHelper::LogDebug("Decode JSON error : %@", std::string_view(e.what()));
        return std::nullopt;
    } catch (const std::exception& e) {
        ZUBProHelper::LogDebug("Caught Exception: %@%@", std::string_view(typeid(e).name()), std::string_view(e.what()));
        return std::nullopt;
    }
}
