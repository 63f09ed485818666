#pragma once

#include <cstddef>
#include <cstdint>

#include "plat/Logger.h"
#include "rdr/MemOutStream.h"
#include "zelcdbsdk.h"

namespace zelcdbsdk {

// SBP command codes. 0xB0 is never a command: it ends every packet.
enum SBPCommand : uint8_t {
    kSBPGet = 0xB1,
    kSBPSet = 0xB2,
    kSBPSubscribe = 0xB3,
    kSBPCancel = 0xB4,
    kSBPAliveRequest = 0xB5,
    kSBPAliveResponse = 0xB6,
    kSBPServiceAuthChallenge = 0xB7,
    kSBPServiceAuthResponse = 0xB8,
    kSBPResponse = 0xB9,
};

constexpr uint8_t kSBPEndMarker = 0xB0;
// command, length, uid, packetId, commandValue
constexpr size_t kSBPHeaderLength = 15;
// The length field of a packet without payload: header after the length, filler, marker.
constexpr uint32_t kSBPEmptyPacketLength = 15;
// A packet without payload, whole.
constexpr size_t kSBPEmptyPacketSize = 20;
// What a packet adds around a payload that is not empty: the header and the end marker.
constexpr size_t kSBPPacketOverhead = kSBPHeaderLength + sizeof kSBPEndMarker;

// Result values carried in a Response's commandValue (SBP-level, not SDK error codes).
enum SBPResult : uint32_t {
    kSBPResultSuccess = 0x00000000,
    kSBPResultInProgress = 0x10000000,
    kSBPResultFailed = 0x10000002,
    kSBPResultInvalidInterval = 0x10000003,
    kSBPResultInvalidSubscriptionType = 0x10000004,
    kSBPResultPeriodicUpdateFailed = 0x10000006,
    kSBPResultAuthTimedOut = 0x10000007,
    kSBPResultAlreadyPending = 0x10000008,
    kSBPResultNothingToCancel = 0x10000009,
    kSBPResultNoFreePacketId = 0x1000000A,
    kSBPResultCancelled = 0x1000000B,
    kSBPResultUnexpectedCommand = 0x1000000D,
};

// The commandValue of a ServiceAuthChallenge.
constexpr uint32_t kSBPChallengeMarker = 0x80000000;

// One parsed packet; payload points into the buffer that was read (no copy) and is null
// with size 0 when the packet carries none.
struct SBPPacket {
    uint8_t command = 0;
    uint32_t uid = 0;
    uint16_t packetId = 0;
    uint32_t commandValue = 0;
    const uint8_t* payload = nullptr;
    size_t payloadSize = 0;
};

// Appends one packet to out: the header, then the payload and the end marker, or four zero
// bytes and the marker when payloadSize is 0. Returns ZELCDBErrorNone, or
// ZELCDBErrorOutOfMemory when the stream cannot grow (what was appended stays).
ZELCDBError writeSBPPacket(rdr::MemOutStream& out, uint8_t command, uint32_t uid, uint16_t packetId,
                           uint32_t commandValue, const uint8_t* payload, size_t payloadSize);

// Parses the data of one ServicePayload as an SBP packet. Never throws: a malformed packet
// gives ZELCDBErrorInvalidSBPPacket and one debug line under log's facility (the callers add
// their own warning). Excess bytes after the end marker are logged and ignored.
ZELCDBError readSBPPacket(const uint8_t* buffer, size_t size, const plat::LoggerRef& log,
                          SBPPacket* packet);

}  // namespace zelcdbsdk
