#pragma once

#include <cstddef>
#include <cstdint>

#include "zelcdbsdk.h"

namespace zelcdbsdk {

// What a service handler needs from its endpoint to call the application: the handle and
// context word that every callback receives first, and the bracket around each callback.
// The endpoint implements it; tests give a fake. Endpoint thread only.
class CDBEndpointHost {
public:
    virtual ~CDBEndpointHost();

    virtual ZELCDBEndpoint* endpointHandle() = 0;
    virtual void* endpointContext() = 0;

    // Every application callback runs between these two. The endpoint counts how deep its
    // thread is in callbacks, so that an API call made from inside one is queued instead of
    // re-entering the session half way through a delivery.
    virtual void enterCallback() = 0;
    virtual void leaveCallback() = 0;

    // The endpoint's CDB session as the SBP sink and source use it. Without a session (the
    // endpoint is not running, or no host that has one) nothing is sent.
    virtual bool hasSession() { return false; }
    virtual void sendServicePayload(uint16_t /*serviceId*/, const uint8_t* /*data*/,
                                    size_t /*length*/) {}
    virtual void sendServiceResponse(uint16_t /*serviceId*/, uint16_t /*code*/) {}
    virtual void stopPeerService(uint16_t /*serviceId*/) {}

    // Calls fn() inside the bracket; the bracket is closed also when fn throws.
    template <typename Fn>
    void callApplication(Fn&& fn) {
        enterCallback();
        Leave leave{this};
        fn();
    }

private:
    struct Leave {
        CDBEndpointHost* host;
        ~Leave() { host->leaveCallback(); }
    };
};

}  // namespace zelcdbsdk
