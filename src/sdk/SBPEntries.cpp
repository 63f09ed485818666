// The C entries of SBP sinks and sources. Creation registers the source or attaches the
// sink; every other entry only posts its control message, which the endpoint thread
// performs later (or at once, when the endpoint is not running, finding nothing to do).
#include "sdk/SBPEntries.h"

#include <cstddef>

#include "cdb/CDBService.h"
#include "cdb/CDBWire.h"
#include "sbp/SBPPacket.h"
#include "sbp/ZELSBPSink.h"
#include "sbp/ZELSBPSource.h"
#include "sdk/ControlMessages.h"
#include "sdk/ErrorFrame.h"
#include "sdk/ZELCDBEndpoint.h"

namespace zelcdbsdk {

namespace {

using namespace ControlMessages;

constexpr uint32_t kServiceReadSize =
    offsetof(ZELCDBService, accessControl) + sizeof(ZELCDBService::accessControl);
// Subscription intervals travel in 24 bits.
constexpr uint32_t kIntervalLimit = 0x1000000;

ZELCDBError sourceCreate(ZELCDBEndpoint* endpoint, void* sourceContext, ZELCDBService* service,
                         uint32_t serviceSize, const ZELSBPSourceCallbacks* callbacks,
                         uint32_t callbacksSize) {
    if (endpoint == nullptr || service == nullptr || serviceSize < kServiceReadSize) {
        return ZELCDBErrorInvalidParameter;
    }
    return runGuarded(endpoint->logRef(), [&] {
        // The registry takes its own reference; this one goes when the call ends.
        CDBService::HandlerRef source = CDBService::HandlerRef::adopt(
            new ZELSBPSource(endpoint, sourceContext, callbacks, callbacksSize));
        ZELCDBError error = endpoint->registerSourceService(*service, source.get(), true);
        if (error == ZELCDBErrorNone) source->setServiceId(service->serviceId);
        return error;
    });
}

ZELCDBError sinkCreate(ZELCDBEndpoint* endpoint, void* sinkContext, uint16_t serviceId,
                       const ZELSBPSinkCallbacks* callbacks, uint32_t callbacksSize) {
    if (endpoint == nullptr) return ZELCDBErrorInvalidParameter;
    if (!endpoint->isRunning()) return ZELCDBErrorIllegalWhileNotRunning;
    return runGuarded(endpoint->logRef(), [&] {
        CDBService::HandlerRef sink = CDBService::HandlerRef::adopt(
            new ZELSBPSink(endpoint, serviceId, sinkContext, callbacks, callbacksSize));
        AddSinkMessage message(endpoint, serviceId, sink.get());
        endpoint->post(message);
        return ZELCDBErrorNone;
    });
}

template <typename MessageType, typename... Args>
ZELCDBError post(ZELCDBEndpoint* endpoint, Args... args) {
    if (endpoint == nullptr) return ZELCDBErrorInvalidParameter;
    return runGuarded(endpoint->logRef(), [&] {
        MessageType message(endpoint, args...);
        endpoint->post(message);
        return ZELCDBErrorNone;
    });
}

// Oversized data is refused on SBP entries too: the peer drops it, or sending ends the link.
bool badBuffer(const uint8_t* data, uint32_t size) {
    return (data == nullptr && size > 0) || size > kMaxServicePayloadLength - kSBPPacketOverhead;
}

ZELCDBError sinkSendGet(ZELCDBEndpoint* endpoint, uint16_t serviceId, void* context, uint32_t uid) {
    return post<SBPSendGetMessage>(endpoint, serviceId, context, uid);
}

ZELCDBError sinkSendSet(ZELCDBEndpoint* endpoint, uint16_t serviceId, void* context, uint32_t uid,
                        const uint8_t* data, uint32_t size) {
    if (badBuffer(data, size)) return ZELCDBErrorInvalidParameter;
    return post<SBPSendSetMessage>(endpoint, serviceId, context, uid, ByteView{data, size});
}

ZELCDBError sinkSendSubscribe(ZELCDBEndpoint* endpoint, uint16_t serviceId, void* context,
                              uint32_t uid, uint32_t type, uint32_t interval) {
    if (interval >= kIntervalLimit) return ZELCDBErrorInvalidParameter;
    return post<SBPSendSubscribeMessage>(endpoint, serviceId, context, uid, type, interval);
}

ZELCDBError sinkSendCancel(ZELCDBEndpoint* endpoint, uint16_t serviceId, void* context,
                           uint32_t uid, uint32_t command) {
    return post<SBPSendCancelMessage>(endpoint, serviceId, context, uid, command);
}

ZELCDBError sinkSendServiceAuthResponse(ZELCDBEndpoint* endpoint, uint16_t serviceId, void* context,
                                        uint32_t command, uint32_t uid, uint32_t result,
                                        const uint8_t* data, uint32_t size) {
    if (badBuffer(data, size)) return ZELCDBErrorInvalidParameter;
    return post<SBPSendServiceAuthResponseMessage>(endpoint, serviceId, context, command, uid,
                                                   result, ByteView{data, size});
}

ZELCDBError sinkSendAlive(ZELCDBEndpoint* endpoint, uint16_t serviceId, void* context,
                          int32_t intervalSeconds) {
    return post<SBPSendAliveMessage>(endpoint, serviceId, context, intervalSeconds);
}

ZELCDBError sourceSendGetResponse(ZELCDBEndpoint* endpoint, uint16_t serviceId, void*,
                                  uint32_t command, uint32_t uid, uint32_t result,
                                  const uint8_t* data, uint32_t size) {
    // The in-progress marker is the source's own to send.
    if (result == kSBPResultInProgress || badBuffer(data, size)) {
        return ZELCDBErrorInvalidParameter;
    }
    return post<SBPSendGetResponseMessage>(endpoint, serviceId, command, uid, result,
                                           ByteView{data, size});
}

ZELCDBError sourceSendSetResponse(ZELCDBEndpoint* endpoint, uint16_t serviceId, void*, uint32_t uid,
                                  uint32_t result) {
    if (result == kSBPResultInProgress) return ZELCDBErrorInvalidParameter;
    return post<SBPSendSetResponseMessage>(endpoint, serviceId, uid, result);
}

ZELCDBError sourceSendSubscribeResponse(ZELCDBEndpoint* endpoint, uint16_t serviceId, void*,
                                        uint32_t uid, uint32_t result) {
    if (result == kSBPResultInProgress) return ZELCDBErrorInvalidParameter;
    return post<SBPSendSubscribeResponseMessage>(endpoint, serviceId, uid, result);
}

ZELCDBError sourceSendServiceAuthChallenge(ZELCDBEndpoint* endpoint, uint16_t serviceId, void*,
                                           uint32_t command, uint32_t uid, const uint8_t* data,
                                           uint32_t size) {
    if (badBuffer(data, size)) return ZELCDBErrorInvalidParameter;
    return post<SBPSendServiceAuthChallengeMessage>(endpoint, serviceId, command, uid,
                                                    ByteView{data, size});
}

}  // namespace

void fillSBPServiceEntries(ZELCDBSDK& table) {
    table.sourceCreate = &sourceCreate;
    table.sinkCreate = &sinkCreate;
    table.sinkSendGet = &sinkSendGet;
    table.sinkSendSet = &sinkSendSet;
    table.sinkSendSubscribe = &sinkSendSubscribe;
    table.sinkSendCancel = &sinkSendCancel;
    table.sinkSendServiceAuthResponse = &sinkSendServiceAuthResponse;
    table.sourceSendGetResponse = &sourceSendGetResponse;
    table.sourceSendSetResponse = &sourceSendSetResponse;
    table.sourceSendSubscribeResponse = &sourceSendSubscribeResponse;
    table.sourceSendServiceAuthChallenge = &sourceSendServiceAuthChallenge;
    table.sinkSendAlive = &sinkSendAlive;
}

}  // namespace zelcdbsdk
