#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "cdb/CDBService.h"

namespace zelcdbsdk {

// Receives the messages that CDBReader decodes, one call per complete message, on the
// endpoint thread from inside CDBReader::processMessages(). Whatever a call throws leaves
// processMessages() unchanged. The CDB session is the one implementation.
class CDBProtocolHandler {
public:
    virtual ~CDBProtocolHandler();

    virtual void handleServicesRequest(CDBVersion peerVersion) = 0;
    // services: the entries in wire order (handlers null), valid for the call only;
    // count: the count the message declared.
    virtual void handleServicesSupported(CDBVersion peerVersion,
                                         const std::vector<CDBService>& services,
                                         uint16_t count) = 0;
    virtual void handleStartService(uint16_t serviceId, CDBVersion requestedVersion) = 0;
    virtual void handleStopService(uint16_t serviceId) = 0;
    // data: length bytes, valid for the call only (it may point into the input buffer).
    virtual void handleServicePayload(uint16_t serviceId, uint8_t accessControl, size_t length,
                                      const uint8_t* data) = 0;
    virtual void handleServiceResponse(uint16_t serviceId, uint16_t code) = 0;
    virtual void handlePing(uint16_t sequence) = 0;
    virtual void handlePingResponse(uint16_t sequence) = 0;
    virtual void handleByeBye() = 0;
};

}  // namespace zelcdbsdk
