#include "sdk/ControlMessages.h"

#include "sdk/ZELCDBEndpoint.h"

namespace zelcdbsdk {
namespace ControlMessages {

CDBSession* findSession(ZELCDBEndpoint* endpoint) {
    return endpoint->session();
}

ZELSBPSink* findSBPSink(ZELCDBEndpoint* endpoint, uint16_t peerServiceId) {
    CDBSession* session = endpoint->session();
    if (!session) return nullptr;
    const CDBService* service = session->findPeerService(peerServiceId);
    return service ? dynamic_cast<ZELSBPSink*>(service->handler) : nullptr;
}

ZELSBPSource* findSBPSource(ZELCDBEndpoint* endpoint, uint16_t localServiceId) {
    return static_cast<ZELSBPSource*>(endpoint->sbpSource(localServiceId));
}

}  // namespace ControlMessages
}  // namespace zelcdbsdk
