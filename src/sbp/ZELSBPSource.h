#pragma once

#include <cstddef>
#include <cstdint>

#include "cdb/CDBService.h"
#include "plat/Logger.h"
#include "rdr/MemOutStream.h"
#include "sbp/SBPPacket.h"
#include "sbp/SBPRequest.h"
#include "zelcdbsdk.h"

// The provider of one local SBP service: accepts StartService and StopService for it,
// receives the sink's commands, asks the application through its source callbacks, and
// answers with Responses, AliveResponses and ServiceAuthChallenges. Requests the
// application answers later are kept alive with interim in-progress Responses every 4 s;
// periodic subscriptions tick on their own timers.
//
// Endpoint thread only: the SDK entries post control messages that call the response
// operations below there, and the session delivers everything else there.
class ZELSBPSource : public zelcdbsdk::CDBService::Handler, public zelcdbsdk::SBPRequestOwner {
public:
    // At most sizeof(ZELSBPSourceCallbacks) bytes of callbacks are copied; the rest stays
    // null. The service id is assigned when the source is registered. Throws std::bad_alloc.
    ZELSBPSource(zelcdbsdk::CDBEndpointHost* host, void* sourceContext,
                 const ZELSBPSourceCallbacks* callbacks, uint32_t callbacksSize);
    ~ZELSBPSource() override;

    void startService(zelcdbsdk::CDBVersion version) override;
    void stopService() override;
    // The connection that started the service is gone (the endpoint's session ended): a
    // started service ends as a StopService would end it (inactive, every request dropped,
    // the application's service-stop callback called) but nothing is sent.
    void sessionEnded() override;
    void servicePayload(const uint8_t* data, size_t length) override;

    // The application's late answers. command 0xB3 on a Get response is a subscription
    // update and keeps the subscription.
    void sendGetResponse(uint32_t command, uint32_t uid, uint32_t result, const uint8_t* data,
                         size_t size);
    void sendSetResponse(uint32_t uid, uint32_t result);
    void sendSubscribeResponse(uint32_t uid, uint32_t result);
    void sendServiceAuthChallenge(uint32_t command, uint32_t uid, const uint8_t* data, size_t size);

    bool active() const { return active_; }
    const zelcdbsdk::SBPRequestTable& requests() const { return requests_; }

    int requestTimedOut(zelcdbsdk::SBPRequest& request) override;

private:
    // Builds and sends one packet; errorFormat ("... %d") is logged with the SDK error when
    // it cannot be built, is too long, or there is no session to take it (false).
    bool sendPacket(uint8_t command, uint32_t uid, uint16_t packetId, uint32_t commandValue,
                    const uint8_t* payload, size_t size, const char* errorFormat);
    void respond(const zelcdbsdk::SBPPacket& request, uint32_t result, const char* errorFormat);
    // Records a request the application will answer later; null when out of memory.
    zelcdbsdk::SBPRequest* record(const zelcdbsdk::SBPPacket& request);
    // What ended a started service: a StopService or the end of the session (the
    // application's service-stop callback is asked), or a malformed packet (its
    // service-terminated callback is told).
    enum Ending { kStopped, kBadPacket };
    // The one way a started service ends, whatever ends it: inactive, the application told,
    // every request and subscription dropped with its timer. True when the application
    // refused the stop.
    bool endService(Ending why);

    void handleGet(const zelcdbsdk::SBPPacket& packet);
    void handleSet(const zelcdbsdk::SBPPacket& packet);
    void handleSubscribe(const zelcdbsdk::SBPPacket& packet);
    void handleCancel(const zelcdbsdk::SBPPacket& packet);
    void handleServiceAuthResponse(const zelcdbsdk::SBPPacket& packet);

    // The answer convention of the get, set and subscribe callbacks.
    enum Answer { kLater, kNow, kDefault };
    static Answer answerOf(ZELCDBError returned);

    zelcdbsdk::SBPRequestTable requests_;
    rdr::MemOutStream packetOut_;
    ZELSBPSourceCallbacks callbacks_;
    plat::LoggerRef log_;
    void* sourceContext_;
    bool active_ = false;
};
