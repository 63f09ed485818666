#include "sbp/ZELSBPSink.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <new>

#include "cdb/CDBEndpointHost.h"
#include "cdb/CDBWire.h"
#include "cdb/CDBWriter.h"

using zelcdbsdk::SBPPacket;
using zelcdbsdk::SBPRequest;

namespace {

constexpr int kRequestTimeoutMs = 5000;
// Statuses that mean the peer's service is not (or no longer) running for us.
constexpr uint16_t kStatusNoSink = 258;
constexpr uint16_t kStatusStopped = 2;
// What the sink reports when a challenge answer finds its request's record gone. The value
// differs from the in-progress marker on purpose: that is what applications have seen.
constexpr uint32_t kRecordGone = 0x01000000;

int32_t sizeForCallback(size_t size) {
    return size > INT32_MAX ? INT32_MAX : static_cast<int32_t>(size);
}

}  // namespace

ZELSBPSink::ZELSBPSink(zelcdbsdk::CDBEndpointHost* host, uint16_t peerServiceId, void* sinkContext,
                       const ZELSBPSinkCallbacks* callbacks, uint32_t callbacksSize)
    : Handler(host, peerServiceId),
      log_{"ZELSBPSink", nullptr},
      sinkContext_(sinkContext),
      aliveTimer_(this) {
    std::memset(&callbacks_, 0, sizeof callbacks_);
    if (callbacks) {
        std::memcpy(&callbacks_, callbacks, std::min<size_t>(callbacksSize, sizeof callbacks_));
    }
}

ZELSBPSink::~ZELSBPSink() = default;

// ---- Sending ------------------------------------------------------------------------------

ZELCDBError ZELSBPSink::sendPacket(uint8_t command, uint32_t uid, uint16_t packetId,
                                   uint32_t commandValue, const uint8_t* payload, size_t size) {
    // One block, reused: a packet is handed to the session before the next one is built.
    packetOut_.clear();
    ZELCDBError error =
        zelcdbsdk::writeSBPPacket(packetOut_, command, uid, packetId, commandValue, payload, size);
    if (error != ZELCDBErrorNone) return error;
    if (!host()->hasSession()) return ZELCDBErrorNone;
    try {
        host()->sendServicePayload(serviceId(), packetOut_.data(), packetOut_.length());
    } catch (const zelcdbsdk::CDBWriter::MessageTooLong& e) {
        // Nothing reached the stream: this request fails, the link and its services go on.
        log_.error("%s", e.str());
        return ZELCDBErrorInvalidParameter;
    }
    return ZELCDBErrorNone;
}

SBPRequest* ZELSBPSink::sendRequest(uint8_t command, uint32_t uid, uint32_t commandValue,
                                    const uint8_t* payload, size_t size, void* context,
                                    uint32_t extra) {
    if (requests_.find(command, uid)) {
        reportError(context, command, uid, ZELCDBErrorLocalSBPError,
                    zelcdbsdk::kSBPResultAlreadyPending);
        return nullptr;
    }
    uint16_t packetId = requests_.allocatePacketId();
    if (packetId == 0) {
        reportError(context, command, uid, ZELCDBErrorLocalSBPError,
                    zelcdbsdk::kSBPResultNoFreePacketId);
        return nullptr;
    }
    std::unique_ptr<SBPRequest> request =
        requests_.newRequest(this, command, uid, packetId, extra, context);
    if (!request) {
        reportError(context, command, uid, ZELCDBErrorOutOfMemory, 0);
        return nullptr;
    }
    ZELCDBError error = sendPacket(command, uid, packetId, commandValue, payload, size);
    if (error != ZELCDBErrorNone) {
        reportError(context, command, uid, error, 0);
        return nullptr;
    }
    try {
        return &requests_.add(std::move(request), kRequestTimeoutMs);
    } catch (const std::bad_alloc&) {
        // Sent but not recorded: its answer will find no record and be dropped.
        reportError(context, command, uid, ZELCDBErrorOutOfMemory, 0);
        return nullptr;
    }
}

void ZELSBPSink::sendGet(void* context, uint32_t uid) {
    sendRequest(zelcdbsdk::kSBPGet, uid, 0, nullptr, 0, context, 0);
}

void ZELSBPSink::sendSet(void* context, uint32_t uid, const uint8_t* data, size_t size) {
    sendRequest(zelcdbsdk::kSBPSet, uid, 0, data, size, context, 0);
}

void ZELSBPSink::sendSubscribe(void* context, uint32_t uid, uint32_t type, uint32_t interval) {
    // The type goes into the top byte as given: the source judges it.
    sendRequest(zelcdbsdk::kSBPSubscribe, uid, interval | (type << 24), nullptr, 0, context, type);
}

void ZELSBPSink::sendCancel(void* context, uint32_t uid, uint32_t command) {
    sendRequest(zelcdbsdk::kSBPCancel, uid, command, nullptr, 0, context, command);
}

void ZELSBPSink::sendServiceAuthResponse(void* context, uint32_t command, uint32_t uid,
                                         uint32_t result, const uint8_t* data, size_t size) {
    SBPRequest* request = requests_.find(command, uid);
    if (!request) {
        reportError(context, command, uid, ZELCDBErrorLocalSBPError,
                    zelcdbsdk::kSBPResultNothingToCancel);
        return;
    }
    if (requests_.findByPacketId(request->packetId) != request) {
        reportError(context, command, uid, ZELCDBErrorFailed, kRecordGone);
        return;
    }
    ZELCDBError error =
        sendPacket(zelcdbsdk::kSBPServiceAuthResponse, uid, request->packetId, result, data, size);
    if (error != ZELCDBErrorNone) {
        reportError(context, command, uid, error, 0);
        return;
    }
    request->timer.start(kRequestTimeoutMs);
}

void ZELSBPSink::sendAlive(void* context, int32_t intervalSeconds) {
    if (intervalSeconds >= 0) {
        sendRequest(zelcdbsdk::kSBPAliveRequest, 0, 0, nullptr, 0, context, 0);
    }
    if (intervalSeconds > 0) {
        aliveContext_ = context;
        int ms = intervalSeconds > INT_MAX / 1000 ? INT_MAX : intervalSeconds * 1000;
        aliveTimer_.start(ms);
    } else {
        aliveTimer_.stop();
    }
}

int ZELSBPSink::timerFired(plat::Timer&) {
    sendRequest(zelcdbsdk::kSBPAliveRequest, 0, 0, nullptr, 0, aliveContext_, 0);
    return 1;
}

// ---- Receiving ----------------------------------------------------------------------------

void ZELSBPSink::serviceResponse(uint16_t status) {
    if (status == kStatusNoSink || status == kStatusStopped) {
        active_ = false;
        requests_.clear();
    } else {
        active_ = true;
    }
    if (!callbacks_.serviceStatusCallback) return;
    host()->callApplication([&] {
        callbacks_.serviceStatusCallback(host()->endpointHandle(), host()->endpointContext(),
                                         serviceId(), sinkContext_, status);
    });
}

void ZELSBPSink::sessionEnded() {
    // Nothing the dead link owed us will come: the application hears it as a stop, and no
    // request or Alive timer is left running on the session's timers.
    aliveTimer_.stop();
    requests_.clear();
    if (active_) serviceResponse(kStatusStopped);
}

void ZELSBPSink::servicePayload(const uint8_t* data, size_t length) {
    if (!active_) {
        if (host()->hasSession()) {
            host()->sendServiceResponse(serviceId(), zelcdbsdk::kNoSinkForService);
        } else {
            log_.warning("Warning: service payload with no active session");
        }
        return;
    }
    SBPPacket packet;
    if (zelcdbsdk::readSBPPacket(data, length, log_, &packet) != ZELCDBErrorNone) {
        log_.warning("Warning: bad SBP packet in sink");
        if (host()->hasSession()) host()->stopPeerService(serviceId());
        return;
    }
    switch (packet.command) {
        case zelcdbsdk::kSBPServiceAuthChallenge:
            handleChallenge(packet);
            break;
        case zelcdbsdk::kSBPResponse:
            handleResponse(packet);
            break;
        case zelcdbsdk::kSBPAliveResponse:
            handleAliveResponse(packet);
            break;
        default:
            break;
    }
}

void ZELSBPSink::handleResponse(const SBPPacket& packet) {
    SBPRequest* request = requests_.findByPacketId(packet.packetId);
    if (!request || request->uid != packet.uid) return;
    if (packet.commandValue == zelcdbsdk::kSBPResultInProgress) {
        request->timer.start(kRequestTimeoutMs);
        return;
    }
    void* context = request->context;
    uint32_t command = request->command;
    uint32_t uid = request->uid;
    if (!(request->flags & SBPRequest::kCancelSent)) {
        if (packet.commandValue != 0) {
            reportError(context, command, uid, ZELCDBErrorRemoteSBPError, packet.commandValue);
            if (packet.commandValue < zelcdbsdk::kSBPResultInProgress && host()->hasSession()) {
                host()->stopPeerService(serviceId());
            }
        } else {
            ZELCDBEndpoint* endpoint = host()->endpointHandle();
            switch (command) {
                case zelcdbsdk::kSBPGet:
                case zelcdbsdk::kSBPSubscribe:
                    if (command == zelcdbsdk::kSBPSubscribe &&
                        !(request->flags & SBPRequest::kSubscribed)) {
                        if (callbacks_.subscribedCallback) {
                            host()->callApplication([&] {
                                callbacks_.subscribedCallback(endpoint, serviceId(), sinkContext_,
                                                              context, uid);
                            });
                        }
                        request->flags |= SBPRequest::kSubscribed;
                        break;
                    }
                    if (callbacks_.dataCallback) {
                        host()->callApplication([&] {
                            callbacks_.dataCallback(endpoint, serviceId(), sinkContext_, context,
                                                    command, uid, packet.payload,
                                                    sizeForCallback(packet.payloadSize));
                        });
                    }
                    break;
                case zelcdbsdk::kSBPSet:
                    if (callbacks_.setDoneCallback) {
                        host()->callApplication([&] {
                            callbacks_.setDoneCallback(endpoint, serviceId(), sinkContext_, context,
                                                       uid);
                        });
                    }
                    break;
                case zelcdbsdk::kSBPCancel:
                    if (callbacks_.cancelledCallback) {
                        host()->callApplication([&] {
                            callbacks_.cancelledCallback(endpoint, serviceId(), sinkContext_,
                                                         context, request->extra, uid);
                        });
                    }
                    break;
                default:
                    reportError(context, command, uid, ZELCDBErrorLocalSBPError,
                                zelcdbsdk::kSBPResultUnexpectedCommand);
                    break;
            }
        }
    }
    if (command == zelcdbsdk::kSBPCancel) {
        SBPRequest* cancelled = requests_.find(request->extra, uid);
        if (cancelled && cancelled != request) requests_.remove(*cancelled);
    }
    if (command == zelcdbsdk::kSBPSubscribe && (request->flags & SBPRequest::kSubscribed)) {
        // An acknowledged subscription stays to receive its updates, without a time-out.
        request->timer.stop();
    } else {
        requests_.remove(*request);
    }
}

void ZELSBPSink::handleAliveResponse(const SBPPacket& packet) {
    SBPRequest* request = requests_.findByPacketId(packet.packetId);
    if (!request) return;
    void* context = request->context;
    requests_.remove(*request);
    if (!callbacks_.aliveResponseCallback) return;
    host()->callApplication([&] {
        callbacks_.aliveResponseCallback(host()->endpointHandle(), serviceId(), sinkContext_,
                                         context);
    });
}

void ZELSBPSink::handleChallenge(const SBPPacket& packet) {
    SBPRequest* request = requests_.findByPacketId(packet.packetId);
    if (!request || request->uid != packet.uid) return;
    if (packet.commandValue == zelcdbsdk::kSBPChallengeMarker && callbacks_.authChallengeCallback) {
        request->timer.stop();
        host()->callApplication([&] {
            callbacks_.authChallengeCallback(host()->endpointHandle(), serviceId(), sinkContext_,
                                             request->context, request->command, request->uid,
                                             packet.payload, sizeForCallback(packet.payloadSize));
        });
        return;
    }
    ZELCDBError error = sendPacket(zelcdbsdk::kSBPServiceAuthResponse, packet.uid, packet.packetId,
                                   zelcdbsdk::kSBPResultFailed, nullptr, 0);
    if (error != ZELCDBErrorNone) {
        log_.error("error building challenge response: %d", error);
        return;
    }
    request->timer.start(kRequestTimeoutMs);
}

// ---- Time-outs and errors -----------------------------------------------------------------

int ZELSBPSink::requestTimedOut(SBPRequest& request) {
    reportError(request.context, request.command, request.uid, ZELCDBErrorTimeout, 0);
    if (request.command == zelcdbsdk::kSBPSubscribe && !(request.flags & SBPRequest::kSubscribed)) {
        SBPRequest* cancel =
            sendRequest(zelcdbsdk::kSBPCancel, request.uid, zelcdbsdk::kSBPSubscribe, nullptr, 0,
                        nullptr, zelcdbsdk::kSBPSubscribe);
        if (cancel) {
            cancel->flags |= SBPRequest::kCancelSent;
        } else {
            log_.warning("Warning: failed to send Cancel to Subscribe timeout");
        }
    } else if (request.command == zelcdbsdk::kSBPAliveRequest) {
        if (host()->hasSession()) host()->stopPeerService(serviceId());
        aliveTimer_.stop();
        log_.warning("Warning: AliveResponse timeout, stopping service");
    }
    requests_.remove(request);
    return 0;
}

void ZELSBPSink::reportError(void* context, uint32_t command, uint32_t uid, ZELCDBError error,
                             uint32_t sbpResult) {
    if (!callbacks_.errorCallback) return;
    host()->callApplication([&] {
        callbacks_.errorCallback(host()->endpointHandle(), serviceId(), sinkContext_, context,
                                 command, uid, error, sbpResult);
    });
}
