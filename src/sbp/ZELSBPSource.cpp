#include "sbp/ZELSBPSource.h"

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

constexpr int kInterimMs = 4000;
constexpr int kChallengeMs = 5000;
constexpr uint32_t kMaxInterval = 0xFFFFFF;

// ServiceResponse codes the source answers StartService and StopService with.
constexpr uint16_t kStarted = 1;
constexpr uint16_t kServiceStopped = 2;
constexpr uint16_t kAlreadyStarted = 0x0101;
constexpr uint16_t kNotStarted = 0x0102;
constexpr uint16_t kStartRefused = 0x0201;
constexpr uint16_t kStopRefused = 0x0202;
constexpr uint16_t kMalformedPacket = 0x0203;

constexpr uint32_t kPeriodic = 0;
constexpr uint32_t kEither = 2;

int32_t sizeForCallback(size_t size) {
    return size > INT32_MAX ? INT32_MAX : static_cast<int32_t>(size);
}

}  // namespace

ZELSBPSource::ZELSBPSource(zelcdbsdk::CDBEndpointHost* host, void* sourceContext,
                           const ZELSBPSourceCallbacks* callbacks, uint32_t callbacksSize)
    : Handler(host, 0), log_{"ZELSBPSource", nullptr}, sourceContext_(sourceContext) {
    std::memset(&callbacks_, 0, sizeof callbacks_);
    if (callbacks) {
        std::memcpy(&callbacks_, callbacks, std::min<size_t>(callbacksSize, sizeof callbacks_));
    }
}

ZELSBPSource::~ZELSBPSource() = default;

ZELSBPSource::Answer ZELSBPSource::answerOf(ZELCDBError returned) {
    if (returned == ZELCDBErrorNone) return kLater;
    if (returned == ZELCDBErrorLocalSBPError) return kNow;
    return kDefault;
}

// ---- Service start and stop ---------------------------------------------------------------

void ZELSBPSource::startService(zelcdbsdk::CDBVersion version) {
    if (!host()->hasSession()) {
        log_.warning("Warning: service start with no active session");
        return;
    }
    if (active_) {
        host()->sendServiceResponse(serviceId(), kAlreadyStarted);
        return;
    }
    active_ = true;
    int32_t refused = 0;
    if (callbacks_.serviceStartCallback) {
        host()->callApplication([&] {
            refused = callbacks_.serviceStartCallback(
                host()->endpointHandle(), host()->endpointContext(), serviceId(), sourceContext_,
                version.majorNumber, version.minorNumber);
        });
    }
    host()->sendServiceResponse(serviceId(), refused ? kStartRefused : kStarted);
}

void ZELSBPSource::stopService() {
    if (!host()->hasSession()) {
        log_.warning("Warning: service stop with no active session");
        return;
    }
    if (!active_) {
        host()->sendServiceResponse(serviceId(), kNotStarted);
        return;
    }
    bool refused = endService(kStopped);
    host()->sendServiceResponse(serviceId(), refused ? kStopRefused : kServiceStopped);
}

void ZELSBPSource::sessionEnded() {
    // The source outlives the session: a request kept from the dead link would make every
    // later one for its element "already pending", and its timer would outlive its manager.
    if (active_) {
        endService(kStopped);
    } else {
        requests_.clear();
    }
}

bool ZELSBPSource::endService(Ending why) {
    active_ = false;
    int32_t refused = 0;
    if (why == kBadPacket) {
        if (callbacks_.serviceTerminatedCallback) {
            host()->callApplication([&] {
                callbacks_.serviceTerminatedCallback(host()->endpointHandle(), serviceId(),
                                                     sourceContext_);
            });
        }
    } else if (callbacks_.serviceStopCallback) {
        host()->callApplication([&] {
            refused = callbacks_.serviceStopCallback(
                host()->endpointHandle(), host()->endpointContext(), serviceId(), sourceContext_);
        });
    }
    requests_.clear();
    return refused != 0;
}

// ---- Sending ------------------------------------------------------------------------------

bool ZELSBPSource::sendPacket(uint8_t command, uint32_t uid, uint16_t packetId,
                              uint32_t commandValue, const uint8_t* payload, size_t size,
                              const char* errorFormat) {
    if (!host()->hasSession()) {
        log_.error(errorFormat, static_cast<int>(ZELCDBErrorIllegalWhileNotRunning));
        return false;
    }
    // One block, reused: a packet is handed to the session before the next one is built.
    packetOut_.clear();
    ZELCDBError error =
        zelcdbsdk::writeSBPPacket(packetOut_, command, uid, packetId, commandValue, payload, size);
    if (error != ZELCDBErrorNone) {
        log_.error(errorFormat, static_cast<int>(error));
        return false;
    }
    try {
        host()->sendServicePayload(serviceId(), packetOut_.data(), packetOut_.length());
    } catch (const zelcdbsdk::CDBWriter::MessageTooLong& e) {
        // Nothing reached the stream: this answer fails, the link and its services go on.
        log_.error("%s", e.str());
        log_.error(errorFormat, static_cast<int>(ZELCDBErrorInvalidParameter));
        return false;
    }
    return true;
}

void ZELSBPSource::respond(const SBPPacket& request, uint32_t result, const char* errorFormat) {
    sendPacket(zelcdbsdk::kSBPResponse, request.uid, request.packetId, result, nullptr, 0,
               errorFormat);
}

SBPRequest* ZELSBPSource::record(const SBPPacket& request) {
    std::unique_ptr<SBPRequest> entry =
        requests_.newRequest(this, request.command, request.uid, request.packetId);
    if (!entry) return nullptr;
    try {
        return &requests_.add(std::move(entry), kInterimMs);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

// ---- Receiving ----------------------------------------------------------------------------

void ZELSBPSource::servicePayload(const uint8_t* data, size_t length) {
    if (!active_) {
        if (host()->hasSession()) {
            host()->sendServiceResponse(serviceId(), zelcdbsdk::kNoSinkForService);
        } else {
            log_.warning("Warning: service payload with no active session");
        }
        return;
    }
    if (length == 0) return;
    SBPPacket packet;
    if (zelcdbsdk::readSBPPacket(data, length, log_, &packet) != ZELCDBErrorNone) {
        // The sink's wording, shared on purpose: operators search for one line.
        log_.warning("Warning: bad SBP packet in sink");
        endService(kBadPacket);
        if (host()->hasSession()) host()->sendServiceResponse(serviceId(), kMalformedPacket);
        return;
    }
    if (SBPRequest* pending = requests_.find(packet.command, packet.uid)) {
        if (requests_.findByPacketId(pending->packetId) == pending) {
            log_.warning("command %lu / %lx already pending",
                         static_cast<unsigned long>(packet.command),
                         static_cast<unsigned long>(packet.uid));
            respond(packet, zelcdbsdk::kSBPResultAlreadyPending,
                    "Error building error response: %d");
            return;
        }
    }
    switch (packet.command) {
        case zelcdbsdk::kSBPGet:
            handleGet(packet);
            break;
        case zelcdbsdk::kSBPSet:
            handleSet(packet);
            break;
        case zelcdbsdk::kSBPSubscribe:
            handleSubscribe(packet);
            break;
        case zelcdbsdk::kSBPCancel:
            handleCancel(packet);
            break;
        case zelcdbsdk::kSBPAliveRequest:
            sendPacket(zelcdbsdk::kSBPAliveResponse, 0, packet.packetId, 0, nullptr, 0,
                       "Error building alive response: %d");
            break;
        case zelcdbsdk::kSBPServiceAuthResponse:
            handleServiceAuthResponse(packet);
            break;
        default:
            respond(packet, zelcdbsdk::kSBPResultUnexpectedCommand,
                    "Error building error response: %d");
            break;
    }
}

void ZELSBPSource::handleGet(const SBPPacket& packet) {
    uint32_t result = zelcdbsdk::kSBPResultFailed;
    Answer answer = kDefault;
    if (callbacks_.getCallback) {
        host()->callApplication([&] {
            answer = answerOf(callbacks_.getCallback(host()->endpointHandle(), serviceId(),
                                                     sourceContext_, zelcdbsdk::kSBPGet, packet.uid,
                                                     &result));
        });
    }
    if (answer == kNow) {
        respond(packet, result, "Error building Get response: %d");
    } else if (answer == kLater) {
        if (!record(packet)) log_.error("Out of memory handling Get message");
    } else {
        respond(packet, zelcdbsdk::kSBPResultFailed, "Error building Get response: %d");
    }
}

void ZELSBPSource::handleSet(const SBPPacket& packet) {
    uint32_t result = zelcdbsdk::kSBPResultFailed;
    Answer answer = kDefault;
    if (callbacks_.setCallback) {
        host()->callApplication([&] {
            answer = answerOf(callbacks_.setCallback(host()->endpointHandle(), serviceId(),
                                                     sourceContext_, packet.uid, packet.payload,
                                                     sizeForCallback(packet.payloadSize), &result));
        });
    }
    if (answer == kNow) {
        respond(packet, result, "Error building Set response: %d");
    } else if (answer == kLater) {
        if (!record(packet)) log_.error("Out of memory handling set message");
    } else {
        respond(packet, zelcdbsdk::kSBPResultFailed, "Error building Set response: %d");
    }
}

void ZELSBPSource::handleSubscribe(const SBPPacket& packet) {
    uint32_t type = packet.commandValue >> 24;
    uint32_t interval = packet.commandValue & kMaxInterval;
    const char* errorText = "Error building Subscribe response: %d";
    if (type > kEither) {
        log_.warning("Warning: invalid subscription type requested");
        respond(packet, zelcdbsdk::kSBPResultInvalidSubscriptionType, errorText);
        return;
    }
    uint32_t result = zelcdbsdk::kSBPResultFailed;
    ZELCDBError returned = ZELCDBErrorFailed;
    if (callbacks_.subscribeCallback) {
        host()->callApplication([&] {
            returned =
                callbacks_.subscribeCallback(host()->endpointHandle(), serviceId(), sourceContext_,
                                             packet.uid, &type, &interval, &result);
        });
    }
    if (interval < 1 || interval > kMaxInterval) {
        log_.warning("Warning: invalid interval requested");
        respond(packet, zelcdbsdk::kSBPResultInvalidInterval, errorText);
        return;
    }
    Answer answer = answerOf(returned);
    if (answer == kNow && result != 0) {
        respond(packet, result, errorText);
        return;
    }
    if (answer == kDefault) {
        respond(packet, zelcdbsdk::kSBPResultFailed, errorText);
        return;
    }
    if (type == kEither) {
        log_.warning("Warning: application failed to indicate subscription type");
        respond(packet, zelcdbsdk::kSBPResultInvalidSubscriptionType, errorText);
        return;
    }
    if (answer == kNow) respond(packet, 0, errorText);
    SBPRequest* subscription = record(packet);
    if (!subscription) {
        log_.error("Out of memory handling subscribe message");
        return;
    }
    subscription->extra = type;
    subscription->interval = interval;
    if (answer == kNow) {
        subscription->flags |= SBPRequest::kSubscribed;
        if (type == kPeriodic) subscription->timer.start(static_cast<int>(interval));
    }
}

void ZELSBPSource::handleCancel(const SBPPacket& packet) {
    uint32_t command = packet.commandValue;
    SBPRequest* target = nullptr;
    if (command >= zelcdbsdk::kSBPGet && command <= zelcdbsdk::kSBPResponse) {
        target = requests_.find(command, packet.uid);
    }
    if (!target) {
        respond(packet, zelcdbsdk::kSBPResultNothingToCancel, "Error building error response: %d");
        return;
    }
    sendPacket(zelcdbsdk::kSBPResponse, target->uid, target->packetId,
               zelcdbsdk::kSBPResultCancelled, nullptr, 0, "Error building error response: %d");
    requests_.remove(*target);
    if (callbacks_.cancelCallback) {
        host()->callApplication([&] {
            callbacks_.cancelCallback(host()->endpointHandle(), serviceId(), sourceContext_,
                                      command, packet.uid);
        });
    }
    respond(packet, 0, "Error building error response: %d");
}

void ZELSBPSource::handleServiceAuthResponse(const SBPPacket& packet) {
    SBPRequest* request = requests_.findByPacketId(packet.packetId);
    if (!request || !(request->flags & SBPRequest::kChallengeSent)) {
        log_.warning("Warning: auth response when no challenge pending");
        return;
    }
    if (request->uid != packet.uid) {
        log_.warning("Warning: auth response with wrong object UID (expected %x, received %x)",
                     request->uid, packet.uid);
        return;
    }
    uint32_t command = request->command;
    if (callbacks_.authResponseCallback) {
        host()->callApplication([&] {
            callbacks_.authResponseCallback(host()->endpointHandle(), serviceId(), sourceContext_,
                                            nullptr, command, packet.uid, packet.commandValue,
                                            packet.payload, sizeForCallback(packet.payloadSize));
        });
    }
    request->flags &= ~static_cast<uint32_t>(SBPRequest::kChallengeSent);
    // The application still owes the answer to the challenged request.
    request->timer.start(kInterimMs);
}

// ---- The application's late answers -------------------------------------------------------

void ZELSBPSource::sendGetResponse(uint32_t command, uint32_t uid, uint32_t result,
                                   const uint8_t* data, size_t size) {
    SBPRequest* request = requests_.find(command, uid);
    if (!request) {
        log_.debug("no packet ID record for get response");
        return;
    }
    uint16_t packetId = request->packetId;
    if (command != zelcdbsdk::kSBPSubscribe) requests_.remove(*request);
    if (!sendPacket(zelcdbsdk::kSBPResponse, uid, packetId, result, data, size,
                    "Error building Get response: %d") &&
        size > 0 && host()->hasSession()) {
        // The data could not go: the sink hears a failure now rather than a time-out later.
        sendPacket(zelcdbsdk::kSBPResponse, uid, packetId, zelcdbsdk::kSBPResultFailed, nullptr, 0,
                   "Error building error response: %d");
    }
}

void ZELSBPSource::sendSetResponse(uint32_t uid, uint32_t result) {
    SBPRequest* request = requests_.find(zelcdbsdk::kSBPSet, uid);
    if (!request) {
        // The Get wording for every kind, as operators know it.
        log_.debug("no packet ID record for get response");
        return;
    }
    uint16_t packetId = request->packetId;
    requests_.remove(*request);
    sendPacket(zelcdbsdk::kSBPResponse, uid, packetId, result, nullptr, 0,
               "Error building Set response: %d");
}

void ZELSBPSource::sendSubscribeResponse(uint32_t uid, uint32_t result) {
    SBPRequest* request = requests_.find(zelcdbsdk::kSBPSubscribe, uid);
    if (!request) {
        log_.debug("no packet ID record for get response");
        return;
    }
    if (request->flags & SBPRequest::kSubscribed) {
        log_.warning("Warning: ignoring second response to subscribe");
        return;
    }
    if (!host()->hasSession()) {
        log_.error("Error building Subscribe response: %d",
                   static_cast<int>(ZELCDBErrorIllegalWhileNotRunning));
        requests_.remove(*request);
        return;
    }
    packetOut_.clear();
    ZELCDBError error = zelcdbsdk::writeSBPPacket(packetOut_, zelcdbsdk::kSBPResponse, uid,
                                                  request->packetId, result, nullptr, 0);
    if (error != ZELCDBErrorNone) {
        log_.error("Error building Subscribe response: %d", static_cast<int>(error));
        requests_.remove(*request);
        return;
    }
    host()->sendServicePayload(serviceId(), packetOut_.data(), packetOut_.length());
    if (result != 0) {
        // A refused subscription is over for the sink; keeping its record would send it
        // in-progress answers every 4 s for ever.
        requests_.remove(*request);
        return;
    }
    request->flags |= SBPRequest::kSubscribed;
    if (request->extra == kPeriodic) request->timer.start(static_cast<int>(request->interval));
}

void ZELSBPSource::sendServiceAuthChallenge(uint32_t command, uint32_t uid, const uint8_t* data,
                                            size_t size) {
    SBPRequest* request = requests_.find(command, uid);
    if (!request) {
        log_.debug("no packet ID record for service auth challenge");
        return;
    }
    if (!sendPacket(zelcdbsdk::kSBPServiceAuthChallenge, uid, request->packetId,
                    zelcdbsdk::kSBPChallengeMarker, data, size,
                    "Error building service auth challenge: %d")) {
        // A challenge that cannot go ends its request, with the failure the sink can read.
        SBPPacket answered;
        answered.uid = uid;
        answered.packetId = request->packetId;
        requests_.remove(*request);
        respond(answered, zelcdbsdk::kSBPResultFailed, "Error building error response: %d");
        return;
    }
    request->flags |= SBPRequest::kChallengeSent;
    request->timer.start(kChallengeMs);
}

// ---- Time-outs ----------------------------------------------------------------------------

int ZELSBPSource::requestTimedOut(SBPRequest& request) {
    SBPPacket answered;
    answered.uid = request.uid;
    answered.packetId = request.packetId;
    if (request.flags & SBPRequest::kChallengeSent) {
        log_.warning("Sink failed to respond to authentication challenge");
        respond(answered, zelcdbsdk::kSBPResultAuthTimedOut, "Error building error response: %d");
        requests_.remove(request);
        return 0;
    }
    if (request.command == zelcdbsdk::kSBPSubscribe && (request.flags & SBPRequest::kSubscribed)) {
        uint32_t result = zelcdbsdk::kSBPResultFailed;
        Answer answer = kDefault;
        if (callbacks_.getCallback) {
            host()->callApplication([&] {
                answer = answerOf(callbacks_.getCallback(host()->endpointHandle(), serviceId(),
                                                         sourceContext_, zelcdbsdk::kSBPSubscribe,
                                                         request.uid, &result));
            });
        }
        if (answer == kLater) return 1;
        if (answer == kNow) {
            respond(answered, result, "Error building Get response: %d");
            if (result == 0 || result == zelcdbsdk::kSBPResultPeriodicUpdateFailed) return 1;
            requests_.remove(request);
            return 0;
        }
        log_.warning("Warning: error getting update for period subscription");
        respond(answered, zelcdbsdk::kSBPResultPeriodicUpdateFailed,
                "Error building error response: %d");
        requests_.remove(request);
        return 0;
    }
    respond(answered, zelcdbsdk::kSBPResultInProgress, "Error building error response: %d");
    return 1;
}
