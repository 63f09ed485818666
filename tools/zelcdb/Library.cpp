#include "Library.h"

#include <arpa/inet.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "Failure.h"

namespace zelcdb {

namespace {

ZELCDBSDK loadTable() {
    ZELCDBSDK table{};
    ZELCDBError error = ZELCDBSDKInitialize(&table, sizeof table);
    if (error != ZELCDBErrorNone || !table.hashName || !table.serializerCreate ||
        !table.deserializerCreate) {
        throw Failure(kExitConnection,
                      "libzelcdbsdk refused to initialise: error " + std::to_string(error));
    }
    return table;
}

}  // namespace

const ZELCDBSDK& sdk() {
    static const ZELCDBSDK table = loadTable();
    return table;
}

void requireEndpoints() {
    const ZELCDBSDK& table = sdk();
    // An older library leaves the entries it lacks NULL; zelcdb needs all of these.
    const void* needed[] = {
        reinterpret_cast<const void*>(table.endpointCreate),
        reinterpret_cast<const void*>(table.endpointAddSourceService),
        reinterpret_cast<const void*>(table.endpointAddSink),
        reinterpret_cast<const void*>(table.endpointSendServicePayload),
        reinterpret_cast<const void*>(table.endpointSendServiceResponse),
        reinterpret_cast<const void*>(table.sourceCreate),
        reinterpret_cast<const void*>(table.sinkCreate),
        reinterpret_cast<const void*>(table.sinkSendGet),
        reinterpret_cast<const void*>(table.sinkSendCancel),
        reinterpret_cast<const void*>(table.sourceSendGetResponse),
        reinterpret_cast<const void*>(table.sinkSendAlive),
    };
    for (const void* entry : needed) {
        if (entry == nullptr) {
            throw Failure(kExitConnection,
                          "this libzelcdbsdk lacks endpoints or SBP services (version " +
                              std::to_string(table.versionMajor) + "." +
                              std::to_string(table.versionMinor) + ")");
        }
    }
}

std::string errorText(ZELCDBError error) {
    const char* name = sdk().getErrorName(error);
    return std::string(name ? name : "unknown error") + " (" + std::to_string(error) + ")";
}

std::string resultText(uint32_t result) {
    const char* meaning = nullptr;
    switch (result) {
        case ZELSBPResultSuccess:
            meaning = "success";
            break;
        case ZELSBPResultFailed:
            meaning = "failed or not supported";
            break;
        case ZELSBPResultInvalidInterval:
            meaning = "invalid subscription interval";
            break;
        case ZELSBPResultInvalidSubscriptionType:
            meaning = "invalid subscription type";
            break;
        case ZELSBPResultPeriodicUpdateFailed:
            meaning = "error getting a periodic update";
            break;
        case ZELSBPResultAuthTimedOut:
            meaning = "authentication challenge not answered";
            break;
        case ZELSBPResultAlreadyPending:
            meaning = "the same request is already pending";
            break;
        case ZELSBPResultNothingToCancel:
            meaning = "nothing to cancel";
            break;
        case ZELSBPResultNoFreePacketId:
            meaning = "no free packet id";
            break;
        case ZELSBPResultCancelled:
            meaning = "cancelled";
            break;
        case ZELSBPResultUnexpectedCommand:
            meaning = "command not supported";
            break;
        default:
            break;
    }
    std::string text = hex32(result);
    if (meaning) text += std::string(" (") + meaning + ")";
    return text;
}

uint32_t hashName(const std::string& name) {
    return sdk().hashName(name.data(), static_cast<uint32_t>(name.size()));
}

std::string hex16(uint16_t value) {
    char text[8];
    std::snprintf(text, sizeof text, "0x%04x", static_cast<unsigned>(value));
    return text;
}

std::string hex32(uint32_t value) {
    char text[12];
    std::snprintf(text, sizeof text, "0x%08x", static_cast<unsigned>(value));
    return text;
}

std::string toHex(const uint8_t* data, size_t size) {
    static const char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(size * 2);
    for (size_t i = 0; i < size; ++i) {
        text += digits[data[i] >> 4];
        text += digits[data[i] & 15];
    }
    return text;
}

std::vector<uint8_t> fromHex(const std::string& text) {
    std::string digits;
    size_t start = text.compare(0, 2, "0x") == 0 || text.compare(0, 2, "0X") == 0 ? 2 : 0;
    for (size_t i = start; i < text.size(); ++i) {
        char c = text[i];
        if (c == ' ' || c == ':') continue;
        if (!std::isxdigit(static_cast<unsigned char>(c))) {
            throw Failure(kExitUsage,
                          "'" + text + "' is not hex: unexpected '" + std::string(1, c) + "'");
        }
        digits += c;
    }
    if (digits.size() % 2 != 0) {
        throw Failure(kExitUsage, "'" + text + "' is not hex: odd number of digits");
    }
    std::vector<uint8_t> bytes(digits.size() / 2);
    for (size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<uint8_t>(std::stoul(digits.substr(2 * i, 2), nullptr, 16));
    }
    return bytes;
}

Address checkUrl(const std::string& url) {
    auto invalid = [&url](const std::string& why) {
        return Failure(kExitUsage, "invalid URL '" + url + "': " + why);
    };
    size_t colonSlashes = url.find("://");
    if (colonSlashes == std::string::npos) {
        throw invalid("expected cdb://IPV4-ADDRESS:PORT, such as cdb://127.0.0.1:9000");
    }
    std::string scheme = url.substr(0, colonSlashes);
    for (char& c : scheme) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (scheme != "cdb") throw invalid("the scheme must be cdb, not '" + scheme + "'");
    std::string authority = url.substr(colonSlashes + 3);
    authority = authority.substr(0, authority.find('/'));
    if (!authority.empty() && authority[0] == '[') {
        throw invalid("IPv6 is not supported, the host must be a numeric IPv4 address");
    }
    size_t colon = authority.rfind(':');
    Address address;
    address.host = authority.substr(0, colon);
    in_addr ignored{};
    if (inet_pton(AF_INET, address.host.c_str(), &ignored) != 1) {
        throw invalid("the host must be a numeric IPv4 address (names are not looked up)");
    }
    if (colon == std::string::npos)
        throw invalid("the port is missing, such as cdb://" + address.host + ":9000");
    uint32_t port = 0;
    std::string digits = authority.substr(colon + 1);
    if (digits.find_first_not_of("0123456789") != std::string::npos || !parseNumber(digits, port) ||
        port == 0 || port > 65535) {
        throw invalid("the port must be a number from 1 to 65535");
    }
    address.port = static_cast<uint16_t>(port);
    return address;
}

bool parseNumber(const std::string& text, uint32_t& value) {
    if (text.empty() || text[0] == '-' || text[0] == '+' ||
        std::isspace(static_cast<unsigned char>(text[0]))) {
        return false;
    }
    // Decimal or 0x hex; a leading zero does not mean octal here.
    bool isHex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    char* end = nullptr;
    errno = 0;
    unsigned long long parsed = std::strtoull(text.c_str(), &end, isHex ? 16 : 10);
    if (errno != 0 || *end != '\0' || parsed > 0xFFFFFFFFull) return false;
    value = static_cast<uint32_t>(parsed);
    return true;
}

}  // namespace zelcdb
