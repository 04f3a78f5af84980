#include "JsonLine.h"

#include <cinttypes>
#include <cstdio>

namespace {

std::string quoted(const std::string& text) {
    std::string out = "\"";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (byte < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof(escaped), "\\u%04x", byte);
            out += escaped;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

}  // namespace

JsonLine& JsonLine::addRaw(const char* key, const std::string& rawValue) {
    if (body_.size() > 1) {
        body_ += ',';
    }
    body_ += quoted(key);
    body_ += ':';
    body_ += rawValue;
    return *this;
}

JsonLine& JsonLine::add(const char* key, const std::string& value) {
    return addRaw(key, quoted(value));
}

JsonLine& JsonLine::add(const char* key, const char* value) {
    return addRaw(key, quoted(value));
}

JsonLine& JsonLine::add(const char* key, uint64_t value) {
    return addRaw(key, std::to_string(value));
}

JsonLine& JsonLine::add(const char* key, int64_t value) {
    return addRaw(key, std::to_string(value));
}

JsonLine& JsonLine::add(const char* key, uint32_t value) {
    return addRaw(key, std::to_string(value));
}

JsonLine& JsonLine::add(const char* key, int value) {
    return addRaw(key, std::to_string(value));
}

JsonLine& JsonLine::add(const char* key, bool value) {
    return addRaw(key, value ? "true" : "false");
}

JsonLine& JsonLine::addNumber(const char* key, double value) {
    char text[32];
    std::snprintf(text, sizeof(text), "%.15g", value);
    return addRaw(key, text);
}

JsonLine& JsonLine::addMicroseconds(const char* key, int64_t nanoseconds) {
    const char* sign = nanoseconds < 0 ? "-" : "";
    const uint64_t magnitude = nanoseconds < 0 ? 0 - static_cast<uint64_t>(nanoseconds)
                                               : static_cast<uint64_t>(nanoseconds);
    const uint64_t whole = magnitude / 1000;
    uint64_t fraction = magnitude % 1000;
    if (fraction == 0) {
        return addRaw(key, sign + std::to_string(whole));
    }
    int digits = 3;
    while (fraction % 10 == 0) {
        fraction /= 10;
        --digits;
    }
    char text[48];
    std::snprintf(text, sizeof(text), "%s%" PRIu64 ".%0*" PRIu64, sign, whole, digits, fraction);
    return addRaw(key, text);
}

JsonLine& JsonLine::addNull(const char* key) {
    return addRaw(key, "null");
}
