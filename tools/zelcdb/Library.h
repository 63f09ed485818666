// The library's function table and the few protocol constants that zelcdb names.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "zelcdbsdk.h"

namespace zelcdb {

// The table filled by ZELCDBSDKInitialize; throws a Failure if the library refuses.
const ZELCDBSDK& sdk();
// Throws a Failure unless the library offers endpoints and SBP services (a build that
// has only the codec leaves their entries NULL).
void requireEndpoints();

// "NetworkError (5)".
std::string errorText(ZELCDBError error);
// "0x10000003 (invalid subscription interval)".
std::string resultText(uint32_t result);
uint32_t hashName(const std::string& name);
// "0x4001", "0x1a2b3c4d".
std::string hex16(uint16_t value);
std::string hex32(uint32_t value);
std::string toHex(const uint8_t* data, size_t size);
// Hex digits, optionally with spaces, colons or a leading 0x; throws Failure on others.
std::vector<uint8_t> fromHex(const std::string& text);
// A peer's address as zelcdb takes it: cdb://IPV4-ADDRESS:PORT, optionally followed by a
// path the library ignores. The library itself takes any scheme and finds out about a
// missing port or a host it cannot use only on the endpoint thread, as "cannot connect";
// checked here, each of these is a usage error that says what is wrong.
struct Address {
    std::string host;
    uint16_t port = 0;
};
// Throws Failure(kExitUsage) naming the fault.
Address checkUrl(const std::string& url);
// A number in decimal or 0x hex that fits in 32 bits; false if the text is not one.
bool parseNumber(const std::string& text, uint32_t& value);

}  // namespace zelcdb
