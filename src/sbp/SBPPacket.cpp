#include "sbp/SBPPacket.h"

#include <new>

#include "plat/Exception.h"

namespace zelcdbsdk {

namespace {

uint32_t readU32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
           static_cast<uint32_t>(p[2]) << 8 | p[3];
}

}  // namespace

ZELCDBError writeSBPPacket(rdr::MemOutStream& out, uint8_t command, uint32_t uid, uint16_t packetId,
                           uint32_t commandValue, const uint8_t* payload, size_t payloadSize) {
    try {
        bool hasPayload = payload != nullptr && payloadSize > 0;
        out.writeU8(command);
        out.writeU32(hasPayload ? static_cast<uint32_t>(payloadSize + 11) : kSBPEmptyPacketLength);
        out.writeU32(uid);
        out.writeU16(packetId);
        out.writeU32(commandValue);
        if (hasPayload) {
            out.writeBytes(payload, payloadSize);
        } else {
            out.writeU32(0);
        }
        out.writeU8(kSBPEndMarker);
        return ZELCDBErrorNone;
    } catch (const std::bad_alloc&) {
        return ZELCDBErrorOutOfMemory;
    } catch (const plat::Exception&) {
        return ZELCDBErrorOutOfMemory;
    }
}

ZELCDBError readSBPPacket(const uint8_t* buffer, size_t size, const plat::LoggerRef& log,
                          SBPPacket* packet) {
    if (buffer == nullptr || size < kSBPHeaderLength) {
        log.debug("Truncated SBP command");
        return ZELCDBErrorInvalidSBPPacket;
    }
    packet->command = buffer[0];
    uint32_t length = readU32(buffer + 1);
    packet->uid = readU32(buffer + 5);
    packet->packetId = static_cast<uint16_t>(buffer[9] << 8 | buffer[10]);
    packet->commandValue = readU32(buffer + 11);
    packet->payload = nullptr;
    packet->payloadSize = 0;
    log.debug(
        "SBP packet: actual length=%d, payloadLength=%d, command=%x, uid=%x, "
        "commandValue=%x",
        static_cast<int>(size), static_cast<int>(length), packet->command, packet->uid,
        packet->commandValue);
    size_t available = size - 5;  // what follows the length field
    if (available < length) {
        log.debug("Truncated SBP packet");
        return ZELCDBErrorInvalidSBPPacket;
    }
    if (available > length) log.debug("Excess trailing data after SBP packet");
    // available >= length keeps offset 4 + length inside the buffer.
    if (buffer[4 + length] != kSBPEndMarker) {
        log.debug("SBP command missing end marker");
        return ZELCDBErrorInvalidSBPPacket;
    }
    if (length > kSBPEmptyPacketLength) {
        packet->payload = buffer + kSBPHeaderLength;
        packet->payloadSize = length - 11;
    }
    return ZELCDBErrorNone;
}

}  // namespace zelcdbsdk
