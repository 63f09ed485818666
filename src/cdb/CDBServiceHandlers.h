#pragma once

#include "cdb/CDBService.h"
#include "zelcdbsdk.h"

namespace zelcdbsdk {

// An own service registered with the application's plain CDB source callbacks. Forwards
// start, stop and payload to them; a callback beyond the size the application gave, or
// null, is skipped.
class CDBSourceHandler : public CDBService::Handler {
public:
    // callbacks may be null; at most sizeof(ZELCDBSourceServiceCallbacks) bytes of it are
    // copied, the rest stays null.
    CDBSourceHandler(CDBEndpointHost* host, void* serviceContext,
                     const ZELCDBSourceServiceCallbacks* callbacks, uint32_t callbacksSize);

    void startService(CDBVersion version) override;
    void stopService() override;
    void servicePayload(const uint8_t* data, size_t length) override;

private:
    void* serviceContext_;
    ZELCDBSourceServiceCallbacks callbacks_;
};

// A sink the application added on a peer service, with its plain CDB sink callbacks.
class CDBSinkHandler : public CDBService::Handler {
public:
    CDBSinkHandler(CDBEndpointHost* host, uint16_t peerServiceId, void* sinkContext,
                   const ZELCDBSinkCallbacks* callbacks, uint32_t callbacksSize);

    void serviceResponse(uint16_t code) override;
    void servicePayload(const uint8_t* data, size_t length) override;

private:
    void* sinkContext_;
    ZELCDBSinkCallbacks callbacks_;
};

}  // namespace zelcdbsdk
