#pragma once

#include <cstddef>
#include <cstdint>

namespace zelcdbsdk {

// Every CDB message is a 4-byte header (type, payload length; big-endian) and a payload.
constexpr size_t kCDBHeaderLength = 4;

enum CDBMessageType : uint16_t {
    kCDBServicesRequest = 0xB101,
    kCDBServicesSupported = 0xB102,
    kCDBStartService = 0xB103,
    kCDBStopService = 0xB104,
    kCDBServicePayload = 0xB105,
    kCDBPingResponse = 0xB106,
    kCDBServiceResponse = 0xB107,
    kCDBPing = 0xB108,
    kCDBByeBye = 0xB109,
};

// Response codes of ServiceResponse that this system sends or reacts to by name. Other
// values (0x0001, 0x0002, 0x0101, 0x0201, 0x0203, 0x0204, 0x0207) are known and accepted.
enum CDBResponseCode : uint16_t {
    kResponsePending = 0x0010,
    kNoSinkForService = 0x0102,
    kServiceStartTimedOut = 0x0201,
    kServiceTerminationFailed = 0x0202,
    kUnknownService = 0x0205,
    kWrongAccessControl = 0x0206,
    kWrongSequenceNumber = 0x0208,
    kWrongCDBVersionNumber = 0x0209,
    kServiceVersionMismatch = 0x020A,
    kUnsupportedPayloadFormat = 0x020B,
};

// Largest ServicePayload data part that is accepted; longer ones are dropped unread.
constexpr size_t kMaxServicePayloadLength = 8100;

}  // namespace zelcdbsdk
