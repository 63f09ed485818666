#pragma once

#include <cstddef>
#include <cstdint>

#include "cdb/CDBService.h"
#include "plat/Exception.h"
#include "plat/Logger.h"
#include "rdr/OutStream.h"

namespace zelcdbsdk {

// Appends complete CDB messages to an output stream; sending them to the socket is the
// owner's business (it flushes when the socket is writable). Each call logs its "Sending"
// line under "CDBWriter" and throws whatever the stream throws when it cannot grow.
// Endpoint thread only.
class CDBWriter {
public:
    // "CDB message too long: <n> payload bytes, at most 65535": the payload length field is
    // 16 bits. Thrown before anything is logged or written, so the stream holds whole
    // messages only. Checking what the application registers or sends is the endpoint's
    // business; this is the last line, so that no input can ever end the process.
    class MessageTooLong : public plat::ExceptionFmt {
    public:
        explicit MessageTooLong(size_t payloadLength)
            : plat::ExceptionFmt("CDB message too long: %zu payload bytes, at most 65535",
                                 payloadLength) {}
    };

    // The stream is not owned and must outlive the writer. logger null: the thread's current
    // logger.
    CDBWriter(rdr::OutStream& out, plat::Logger* logger);
    CDBWriter(const CDBWriter&) = delete;
    CDBWriter& operator=(const CDBWriter&) = delete;

    void sendServicesRequest(CDBVersion version);
    // Names must be at most 255 bytes (service registration guarantees it). Throws
    // MessageTooLong when the services do not fit one message.
    void sendServicesSupported(CDBVersion version, const CDBService* services, size_t count);
    void sendStartService(uint16_t serviceId, CDBVersion version);
    void sendStopService(uint16_t serviceId);
    // Throws MessageTooLong when length leaves no room for the service id and access control
    // byte in the 16-bit payload length (callers refuse more than 8100 bytes anyway).
    void sendServicePayload(uint16_t serviceId, uint8_t accessControl, const void* data,
                            size_t length);
    void sendPingResponse(uint16_t sequence);
    void sendServiceResponse(uint16_t serviceId, uint16_t code);
    void sendPing(uint16_t sequence);
    void sendByeBye();

private:
    // The caller has checked payloadLength with checkLength() before logging.
    void writeHeader(uint16_t type, size_t payloadLength);
    static void checkLength(size_t payloadLength);

    rdr::OutStream& out_;
    plat::LoggerRef log_;
};

}  // namespace zelcdbsdk
