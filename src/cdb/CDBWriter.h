#pragma once

#include <cstddef>
#include <cstdint>

#include "cdb/CDBService.h"
#include "plat/Logger.h"
#include "rdr/OutStream.h"

namespace zelcdbsdk {

// Appends complete CDB messages to an output stream; sending them to the socket is the
// owner's business (it flushes when the socket is writable). Each call logs its "Sending"
// line under "CDBWriter" and throws whatever the stream throws when it cannot grow.
// Endpoint thread only.
class CDBWriter {
public:
    // The stream is not owned and must outlive the writer. logger null: the thread's current
    // logger.
    CDBWriter(rdr::OutStream& out, plat::Logger* logger);
    CDBWriter(const CDBWriter&) = delete;
    CDBWriter& operator=(const CDBWriter&) = delete;

    void sendServicesRequest(CDBVersion version);
    // Names must be at most 255 bytes and the whole message at most 65535 bytes; service
    // registration guarantees both, so they are not checked again here.
    void sendServicesSupported(CDBVersion version, const CDBService* services, size_t count);
    void sendStartService(uint16_t serviceId, CDBVersion version);
    void sendStopService(uint16_t serviceId);
    // length must leave the message within 65535 bytes (callers refuse more than 8100).
    void sendServicePayload(uint16_t serviceId, uint8_t accessControl, const void* data,
                            size_t length);
    void sendPingResponse(uint16_t sequence);
    void sendServiceResponse(uint16_t serviceId, uint16_t code);
    void sendPing(uint16_t sequence);
    void sendByeBye();

private:
    void writeHeader(uint16_t type, size_t payloadLength);

    rdr::OutStream& out_;
    plat::LoggerRef log_;
};

}  // namespace zelcdbsdk
