#include "sdk/SBPControlMessages.h"

#include <cstring>
#include <memory>

#include "cdb/CDBSession.h"
#include "sbp/ZELSBPSink.h"
#include "sbp/ZELSBPSource.h"
#include "sdk/ZELCDBEndpoint.h"

namespace zelcdbsdk {
namespace ControlMessages {

namespace detail {

// A copy of the caller's bytes that lives as long as the queued message holding it.
class OwnedBytes {
public:
    OwnedBytes(const uint8_t* data, uint32_t size)
        : bytes_(size > 0 && data ? new uint8_t[size] : nullptr) {
        if (bytes_) std::memcpy(bytes_.get(), data, size);
    }
    const uint8_t* get() const { return bytes_.get(); }

private:
    std::unique_ptr<uint8_t[]> bytes_;
};

// The deep copies that the four messages with caller bytes clone into: the same message
// pointing at a copy of its own, freed with it.
template <typename Message>
class DeepCopy : public Message {
public:
    explicit DeepCopy(const Message& message) : Message(message), copy_(this->data_, this->size_) {
        this->data_ = copy_.get();
    }

private:
    OwnedBytes copy_;
};

}  // namespace detail

class SBPSendSetMessageDeepCopy : public detail::DeepCopy<SBPSendSetMessage> {
    using DeepCopy::DeepCopy;
};
class SBPSendServiceAuthResponseMessageDeepCopy
    : public detail::DeepCopy<SBPSendServiceAuthResponseMessage> {
    using DeepCopy::DeepCopy;
};
class SBPSendGetResponseMessageDeepCopy : public detail::DeepCopy<SBPSendGetResponseMessage> {
    using DeepCopy::DeepCopy;
};
class SBPSendServiceAuthChallengeMessageDeepCopy
    : public detail::DeepCopy<SBPSendServiceAuthChallengeMessage> {
    using DeepCopy::DeepCopy;
};

ZELSBPSink* findSBPSink(ZELCDBEndpoint* endpoint, uint16_t peerServiceId) {
    CDBSession* session = endpoint->session();
    if (!session) return nullptr;
    const CDBService* service = session->findPeerService(peerServiceId);
    return service ? dynamic_cast<ZELSBPSink*>(service->handler) : nullptr;
}

ZELSBPSource* findSBPSource(ZELCDBEndpoint* endpoint, uint16_t localServiceId) {
    return static_cast<ZELSBPSource*>(endpoint->sbpSource(localServiceId));
}

int SBPSendGetMessage::action() {
    if (ZELSBPSink* sink = findSBPSink(endpoint(), serviceId())) sink->sendGet(context_, uid_);
    return 0;
}
messaging::ControlMessage* SBPSendGetMessage::clone() const {
    return new SBPSendGetMessage(*this);
}

int SBPSendSetMessage::action() {
    if (ZELSBPSink* sink = findSBPSink(endpoint(), serviceId())) {
        sink->sendSet(context_, uid_, data_, size_);
    }
    return 0;
}
messaging::ControlMessage* SBPSendSetMessage::clone() const {
    return new SBPSendSetMessageDeepCopy(*this);
}

int SBPSendSubscribeMessage::action() {
    if (ZELSBPSink* sink = findSBPSink(endpoint(), serviceId())) {
        sink->sendSubscribe(context_, uid_, type_, interval_);
    }
    return 0;
}
messaging::ControlMessage* SBPSendSubscribeMessage::clone() const {
    return new SBPSendSubscribeMessage(*this);
}

int SBPSendCancelMessage::action() {
    if (ZELSBPSink* sink = findSBPSink(endpoint(), serviceId())) {
        sink->sendCancel(context_, uid_, command_);
    }
    return 0;
}
messaging::ControlMessage* SBPSendCancelMessage::clone() const {
    return new SBPSendCancelMessage(*this);
}

int SBPSendAliveMessage::action() {
    if (ZELSBPSink* sink = findSBPSink(endpoint(), serviceId())) {
        sink->sendAlive(context_, interval_);
    }
    return 0;
}
messaging::ControlMessage* SBPSendAliveMessage::clone() const {
    return new SBPSendAliveMessage(*this);
}

int SBPSendServiceAuthResponseMessage::action() {
    if (ZELSBPSink* sink = findSBPSink(endpoint(), serviceId())) {
        sink->sendServiceAuthResponse(context_, command_, uid_, result_, data_, size_);
    }
    return 0;
}
messaging::ControlMessage* SBPSendServiceAuthResponseMessage::clone() const {
    return new SBPSendServiceAuthResponseMessageDeepCopy(*this);
}

int SBPSendGetResponseMessage::action() {
    if (ZELSBPSource* source = findSBPSource(endpoint(), serviceId())) {
        source->sendGetResponse(command_, uid_, result_, data_, size_);
    }
    return 0;
}
messaging::ControlMessage* SBPSendGetResponseMessage::clone() const {
    return new SBPSendGetResponseMessageDeepCopy(*this);
}

int SBPSendSetResponseMessage::action() {
    if (ZELSBPSource* source = findSBPSource(endpoint(), serviceId())) {
        source->sendSetResponse(uid_, result_);
    }
    return 0;
}
messaging::ControlMessage* SBPSendSetResponseMessage::clone() const {
    return new SBPSendSetResponseMessage(*this);
}

int SBPSendSubscribeResponseMessage::action() {
    if (ZELSBPSource* source = findSBPSource(endpoint(), serviceId())) {
        source->sendSubscribeResponse(uid_, result_);
    }
    return 0;
}
messaging::ControlMessage* SBPSendSubscribeResponseMessage::clone() const {
    return new SBPSendSubscribeResponseMessage(*this);
}

int SBPSendServiceAuthChallengeMessage::action() {
    if (ZELSBPSource* source = findSBPSource(endpoint(), serviceId())) {
        source->sendServiceAuthChallenge(command_, uid_, data_, size_);
    }
    return 0;
}
messaging::ControlMessage* SBPSendServiceAuthChallengeMessage::clone() const {
    return new SBPSendServiceAuthChallengeMessageDeepCopy(*this);
}

}  // namespace ControlMessages
}  // namespace zelcdbsdk
