#include "OnlineConfig.h"

#include "Common/ZUBProHelper.h"

#include <charconv>
#include <fstream>
#include <limits>
#include <sstream>

namespace zubcollector {
namespace {

std::optional<std::int32_t> positiveVersion(const zub::Value& v) {
    std::int64_t value = 0;
    if (v.is_number_integer()) {
        if (v.is_number_unsigned()) {
            const auto u = v.get<std::uint64_t>();
            if (u > static_cast<std::uint64_t>(std::numeric_limits<std::int32_t>::max())) return std::nullopt;
            value = static_cast<std::int64_t>(u);
        } else {
            value = v.get<std::int64_t>();
        }
    } else if (v.is_string()) {
        const std::string& text = v.get_ref<const std::string&>();
        const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
        if (ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
    } else {
        return std::nullopt;
    }
    if (value <= 0 || value > std::numeric_limits<std::int32_t>::max()) return std::nullopt;
    return static_cast<std::int32_t>(value);
}

std::optional<ConfigBlock> parseBlock(const zub::Value& block, const char* name, std::string& error) {
    if (!block.is_object()) {
        error = std::string("\"") + name + "\" must be an object with \"v\" and \"c\"";
        return std::nullopt;
    }
    ConfigBlock result;
    const auto content = block.find("c");
    if (content == block.end() || (!content->is_object() && !content->is_array())) {
        error = std::string("\"") + name + "\".\"c\" must be a JSON object or array";
        return std::nullopt;
    }
    result.content = *content;
    const auto version = block.find("v");
    const auto parsed = version == block.end() ? std::nullopt : positiveVersion(*version);
    if (!parsed) {
        error = std::string("\"") + name + "\".\"v\" must be a positive 32-bit integer";
        return std::nullopt;
    }
    result.version = *parsed;
    const auto md5 = block.find("m");
    if (md5 != block.end()) {
        if (!md5->is_string()) {
            error = std::string("\"") + name + "\".\"m\" must be a string";
            return std::nullopt;
        }
        result.md5 = md5->get<std::string>();
    } else {
        result.md5 = ZUBProHelper::md5encrypt(result.content.dump()).value_or("");
    }
    return result;
}

zub::Value wireBlock(const ConfigBlock& block) {
    zub::Value wire = zub::Value::object();
    wire["c"] = block.content;
    wire["v"] = block.version;
    wire["m"] = block.md5;
    return wire;
}

}  // namespace

std::optional<OnlineConfig> OnlineConfig::load(const std::string& path, std::string& error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error = "cannot read configuration file " + path;
        return std::nullopt;
    }
    std::ostringstream text;
    text << in.rdbuf();
    auto config = parse(text.str(), error);
    if (!config) error = path + ": " + error;
    return config;
}

std::optional<OnlineConfig> OnlineConfig::parse(const std::string& text, std::string& error) {
    zub::Value root;
    try {
        root = zub::Value::parse(text);
    } catch (const std::exception& e) {
        error = std::string("not JSON: ") + e.what();
        return std::nullopt;
    }
    if (!root.is_object()) {
        error = "the configuration must be a JSON object with \"sdk\" and/or \"app\"";
        return std::nullopt;
    }
    OnlineConfig config;
    for (const auto& [key, value] : root.items()) {
        if (key == "sdk") {
            config.sdk = parseBlock(value, "sdk", error);
            if (!config.sdk) return std::nullopt;
        } else if (key == "app") {
            config.app = parseBlock(value, "app", error);
            if (!config.app) return std::nullopt;
        } else {
            error = "unknown key \"" + key + "\" (expected \"sdk\" and/or \"app\")";
            return std::nullopt;
        }
    }
    return config;
}

zub::Value OnlineConfig::wireValue(bool withSdk, bool withApp) const {
    zub::Value cfg = zub::Value::object();
    if (withSdk && sdk) cfg["1"] = wireBlock(*sdk);
    if (withApp && app) cfg["2"] = wireBlock(*app);
    if (cfg.empty()) return nullptr;
    return cfg;
}

}  // namespace zubcollector
