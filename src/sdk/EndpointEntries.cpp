// The C entries of the endpoint: creation, start and stop, service registration and the CDB
// commands. Each runs through the error frame with the endpoint's own log; the checks that
// need no work (null handle, sizes, limits, running state) return their code without a line.
#include "sdk/EndpointEntries.h"

#include <cstddef>

#include "cdb/CDBServiceHandlers.h"
#include "cdb/CDBWire.h"
#include "sdk/ControlMessages.h"
#include "sdk/ErrorFrame.h"
#include "sdk/ZELCDBEndpoint.h"

namespace zelcdbsdk {

namespace {

// Lines of a call that has no endpoint yet go to the calling thread's current logger.
const plat::LoggerRef kCreateLog{"CDBEndpoint", nullptr};

constexpr uint32_t kServiceReadSize =
    offsetof(ZELCDBService, accessControl) + sizeof(ZELCDBService::accessControl);

ZELCDBError endpointCreate(ZELCDBEndpoint** endpoint, const ZELCDBEndpointParameters* parameters,
                           uint32_t parametersSize, const ZELCDBEndpointCallbacks* callbacks,
                           uint32_t callbacksSize) {
    if (endpoint != nullptr) *endpoint = nullptr;
    return runGuarded(kCreateLog, [&] {
        return ZELCDBEndpoint::create(endpoint, parameters, parametersSize, callbacks,
                                      callbacksSize);
    });
}

ZELCDBError endpointDestroy(ZELCDBEndpoint* endpoint) {
    if (endpoint == nullptr) return ZELCDBErrorInvalidParameter;
    // A copy: the endpoint is gone when the call succeeds.
    plat::LoggerRef log = endpoint->logRef();
    return runGuarded(log, [&] {
        ZELCDBEndpoint::destroy(endpoint);
        return ZELCDBErrorNone;
    });
}

ZELCDBError endpointAddSourceService(ZELCDBEndpoint* endpoint, void* serviceContext,
                                     ZELCDBService* service, uint32_t serviceSize,
                                     const ZELCDBSourceServiceCallbacks* callbacks,
                                     uint32_t callbacksSize) {
    if (endpoint == nullptr || service == nullptr || serviceSize < kServiceReadSize) {
        return ZELCDBErrorInvalidParameter;
    }
    return runGuarded(endpoint->logRef(), [&] {
        // The registry takes its own reference; this one goes when the call ends.
        CDBService::HandlerRef handler = CDBService::HandlerRef::adopt(
            new CDBSourceHandler(endpoint, serviceContext, callbacks, callbacksSize));
        return endpoint->registerSourceService(*service, handler.get(), false);
    });
}

ZELCDBError endpointAddSink(ZELCDBEndpoint* endpoint, void* sinkContext, uint16_t serviceId,
                            const ZELCDBSinkCallbacks* callbacks, uint32_t callbacksSize) {
    if (endpoint == nullptr) return ZELCDBErrorInvalidParameter;
    if (!endpoint->isRunning()) return ZELCDBErrorIllegalWhileNotRunning;
    return runGuarded(endpoint->logRef(), [&] {
        CDBService::HandlerRef handler = CDBService::HandlerRef::adopt(
            new CDBSinkHandler(endpoint, serviceId, sinkContext, callbacks, callbacksSize));
        ControlMessages::AddSinkMessage message(endpoint, serviceId, handler.get());
        endpoint->post(message);
        return ZELCDBErrorNone;
    });
}

ZELCDBError endpointStart(ZELCDBEndpoint* endpoint) {
    if (endpoint == nullptr) return ZELCDBErrorInvalidParameter;
    return runGuarded(endpoint->logRef(), [&] { return endpoint->start(); });
}

ZELCDBError endpointStop(ZELCDBEndpoint* endpoint) {
    if (endpoint == nullptr) return ZELCDBErrorInvalidParameter;
    return runGuarded(endpoint->logRef(), [&] {
        endpoint->stop();
        return ZELCDBErrorNone;
    });
}

// The common frame of the commands that need a running endpoint.
template <typename MessageType, typename... Args>
ZELCDBError postCommand(ZELCDBEndpoint* endpoint, Args... args) {
    if (endpoint == nullptr) return ZELCDBErrorInvalidParameter;
    if (!endpoint->isRunning()) return ZELCDBErrorIllegalWhileNotRunning;
    return runGuarded(endpoint->logRef(), [&] {
        MessageType message(endpoint, args...);
        endpoint->post(message);
        return ZELCDBErrorNone;
    });
}

ZELCDBError endpointSendStartService(ZELCDBEndpoint* endpoint, uint16_t serviceId) {
    return postCommand<ControlMessages::SendStartServiceMessage>(endpoint, serviceId);
}

ZELCDBError endpointSendStopService(ZELCDBEndpoint* endpoint, uint16_t serviceId) {
    return postCommand<ControlMessages::SendStopServiceMessage>(endpoint, serviceId);
}

ZELCDBError endpointSendServicePayload(ZELCDBEndpoint* endpoint, uint16_t serviceId,
                                       const uint8_t* data, uint32_t length) {
    // The limit comes first, so that an oversized payload is refused the same way whatever
    // else is wrong with the call.
    if (length > kMaxServicePayloadLength) return ZELCDBErrorInvalidParameter;
    if (data == nullptr && length > 0) return ZELCDBErrorInvalidParameter;
    return postCommand<ControlMessages::SendServicePayloadMessage>(
        endpoint, serviceId, ControlMessages::ByteView{data, length});
}

ZELCDBError endpointSendServiceResponse(ZELCDBEndpoint* endpoint, uint16_t serviceId,
                                        uint16_t response) {
    return postCommand<ControlMessages::SendServiceResponseMessage>(endpoint, serviceId, response);
}

void* endpointGetContext(ZELCDBEndpoint* endpoint) {
    return endpoint == nullptr ? nullptr : endpoint->context();
}

}  // namespace

void fillEndpointEntries(ZELCDBSDK& table) {
    table.endpointCreate = &endpointCreate;
    table.endpointDestroy = &endpointDestroy;
    table.endpointAddSourceService = &endpointAddSourceService;
    table.endpointAddSink = &endpointAddSink;
    table.endpointStart = &endpointStart;
    table.endpointStop = &endpointStop;
    table.endpointSendStartService = &endpointSendStartService;
    table.endpointSendStopService = &endpointSendStopService;
    table.endpointSendServicePayload = &endpointSendServicePayload;
    table.endpointSendServiceResponse = &endpointSendServiceResponse;
    table.endpointGetContext = &endpointGetContext;
}

}  // namespace zelcdbsdk
