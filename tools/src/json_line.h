// One JSON object built field by field, for the one-line outputs of the
// subcommands.
#pragma once

#include <cstring>
#include <string>

#include "lumctl/decoded.h"

namespace lumctl {

struct JsonLine {
    std::string body;

    JsonLine& raw(const char* key, const std::string& json)
    {
        if (!body.empty())
            body += ',';
        body += json_string(key, strlen(key));
        body += ':';
        body += json;
        return *this;
    }
    JsonLine& str(const char* key, const std::string& value)
    {
        return raw(key, json_string(value.data(), value.size()));
    }
    JsonLine& num(const char* key, long long value) { return raw(key, std::to_string(value)); }
    JsonLine& flag(const char* key, bool value) { return raw(key, value ? "true" : "false"); }
    // The fields of a decoded payload, after the ones given so far.
    JsonLine& fields(const Decoded& decoded)
    {
        std::string obj = fields_json(decoded);
        std::string inner = obj.substr(1, obj.size() - 2);
        if (!inner.empty())
            body += (body.empty() ? "" : ",") + inner;
        return *this;
    }
    std::string done() const { return "{" + body + "}"; }
};

}  // namespace lumctl
