#include "cdb/CDBServiceHandlers.h"

#include <algorithm>
#include <cstring>

#include "cdb/CDBEndpointHost.h"

namespace zelcdbsdk {

namespace {

// Copies the entries of the application's table that lie wholly inside the size it gave,
// over a zeroed table. An entry cut by the size counts as missing: half a pointer copied
// over a null one would be called as a function.
template <typename Table>
Table copyBySize(const Table* callbacks, uint32_t size) {
    using Entry = void (*)();
    static_assert(sizeof(Table) % sizeof(Entry) == 0, "a table of function pointers");
    Table table;
    std::memset(&table, 0, sizeof table);
    size_t whole = std::min<size_t>(size, sizeof table) / sizeof(Entry) * sizeof(Entry);
    if (callbacks) std::memcpy(&table, callbacks, whole);
    return table;
}

}  // namespace

CDBEndpointHost::~CDBEndpointHost() = default;

CDBSourceHandler::CDBSourceHandler(CDBEndpointHost* host, void* serviceContext,
                                   const ZELCDBSourceServiceCallbacks* callbacks,
                                   uint32_t callbacksSize)
    : Handler(host, 0),
      serviceContext_(serviceContext),
      callbacks_(copyBySize(callbacks, callbacksSize)) {}

void CDBSourceHandler::startService(CDBVersion version) {
    if (!callbacks_.startCallback) return;
    host()->callApplication([&] {
        callbacks_.startCallback(host()->endpointHandle(), host()->endpointContext(), serviceId(),
                                 serviceContext_, version.majorNumber, version.minorNumber);
    });
}

void CDBSourceHandler::stopService() {
    if (!callbacks_.stopCallback) return;
    host()->callApplication([&] {
        callbacks_.stopCallback(host()->endpointHandle(), host()->endpointContext(), serviceId(),
                                serviceContext_);
    });
}

void CDBSourceHandler::servicePayload(const uint8_t* data, size_t length) {
    if (!callbacks_.payloadCallback) return;
    host()->callApplication([&] {
        callbacks_.payloadCallback(host()->endpointHandle(), host()->endpointContext(), serviceId(),
                                   serviceContext_, data, static_cast<uint32_t>(length));
    });
}

CDBSinkHandler::CDBSinkHandler(CDBEndpointHost* host, uint16_t peerServiceId, void* sinkContext,
                               const ZELCDBSinkCallbacks* callbacks, uint32_t callbacksSize)
    : Handler(host, peerServiceId),
      sinkContext_(sinkContext),
      callbacks_(copyBySize(callbacks, callbacksSize)) {}

void CDBSinkHandler::serviceResponse(uint16_t code) {
    if (!callbacks_.responseCallback) return;
    host()->callApplication([&] {
        callbacks_.responseCallback(host()->endpointHandle(), host()->endpointContext(),
                                    serviceId(), sinkContext_, code);
    });
}

void CDBSinkHandler::servicePayload(const uint8_t* data, size_t length) {
    if (!callbacks_.payloadCallback) return;
    host()->callApplication([&] {
        callbacks_.payloadCallback(host()->endpointHandle(), host()->endpointContext(), serviceId(),
                                   sinkContext_, data, static_cast<uint32_t>(length));
    });
}

}  // namespace zelcdbsdk
