#pragma once

#include <cstddef>
#include <cstdint>

#include "cdb/CDBService.h"
#include "plat/Logger.h"
#include "plat/TimerManager.h"
#include "sbp/SBPPacket.h"
#include "sbp/SBPRequest.h"
#include "zelcdbsdk.h"

// The user of one SBP service that the peer offers: sends Get, Set, Subscribe, Cancel,
// AliveRequest and ServiceAuthResponse packets on that CDB service, matches the source's
// answers to its outstanding requests by packetId, and reports every outcome through the
// application's sink callbacks as (SDK error, SBP result value) pairs.
//
// Endpoint thread only: the SDK entries post control messages that call the send
// operations below there, and the session delivers payloads and service statuses there.
class ZELSBPSink : public zelcdbsdk::CDBService::Handler,
                   public zelcdbsdk::SBPRequestOwner,
                   public plat::Timer::Callback {
public:
    // At most sizeof(ZELSBPSinkCallbacks) bytes of callbacks are copied; the rest stays null.
    // Throws std::bad_alloc.
    ZELSBPSink(zelcdbsdk::CDBEndpointHost* host, uint16_t peerServiceId, void* sinkContext,
               const ZELSBPSinkCallbacks* callbacks, uint32_t callbacksSize);
    ~ZELSBPSink() override;

    // A ServiceResponse for the service, reported as its status: 258 (no sink) or 2
    // (stopped) make the sink inactive and drop every request, anything else activates it.
    void serviceResponse(uint16_t status) override;
    void servicePayload(const uint8_t* data, size_t length) override;
    // The link is gone: an active sink ends as a stopped-service status would end it
    // (inactive, every request dropped, service-status callback with 2).
    void sessionEnded() override;

    void sendGet(void* context, uint32_t uid);
    void sendSet(void* context, uint32_t uid, const uint8_t* data, size_t size);
    void sendSubscribe(void* context, uint32_t uid, uint32_t type, uint32_t interval);
    void sendCancel(void* context, uint32_t uid, uint32_t command);
    void sendServiceAuthResponse(void* context, uint32_t command, uint32_t uid, uint32_t result,
                                 const uint8_t* data, size_t size);
    // intervalSeconds > 0 repeats the AliveRequest; 0 sends one and stops repeating; a
    // negative interval only stops repeating.
    void sendAlive(void* context, int32_t intervalSeconds);

    bool active() const { return active_; }
    const zelcdbsdk::SBPRequestTable& requests() const { return requests_; }

    int requestTimedOut(zelcdbsdk::SBPRequest& request) override;
    // The periodic Alive.
    int timerFired(plat::Timer& timer) override;

private:
    // Records and sends one request; null when it was refused (the error callback has
    // been told why).
    zelcdbsdk::SBPRequest* sendRequest(uint8_t command, uint32_t uid, uint32_t commandValue,
                                       const uint8_t* payload, size_t size, void* context,
                                       uint32_t extra);
    // Builds a packet and hands it to the session, if there is one; the SDK error of a
    // packet that could not be built or was too long for the session to take.
    ZELCDBError sendPacket(uint8_t command, uint32_t uid, uint16_t packetId, uint32_t commandValue,
                           const uint8_t* payload, size_t size);

    void handleResponse(const zelcdbsdk::SBPPacket& packet);
    void handleAliveResponse(const zelcdbsdk::SBPPacket& packet);
    void handleChallenge(const zelcdbsdk::SBPPacket& packet);

    void reportError(void* context, uint32_t command, uint32_t uid, ZELCDBError error,
                     uint32_t sbpResult);

    zelcdbsdk::SBPRequestTable requests_;
    rdr::MemOutStream packetOut_;
    ZELSBPSinkCallbacks callbacks_;
    plat::LoggerRef log_;
    void* sinkContext_;
    plat::Timer aliveTimer_;
    void* aliveContext_ = nullptr;
    bool active_ = false;
};
