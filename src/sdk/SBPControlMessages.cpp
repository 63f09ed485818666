#include "sdk/SBPControlMessages.h"

#include <cstring>
#include <memory>
#include <new>

#include "cdb/CDBSession.h"
#include "sbp/ZELSBPSink.h"
#include "sbp/ZELSBPSource.h"
#include "sdk/ZELCDBEndpoint.h"

namespace zelcdbsdk {
namespace ControlMessages {

namespace detail {

// The deep copies that the four messages with caller bytes clone into: the same message
// pointing at a copy of its own. The copy lives in the same block, behind the message, so
// that a queued message with data costs one allocation rather than two.
template <typename Message>
class DeepCopy final : public Message {
public:
    // Throws std::bad_alloc.
    static Message* make(const Message& message, const uint8_t* data, uint32_t size) {
        bool copied = size > 0 && data != nullptr;
        void* block = ::operator new(sizeof(DeepCopy) + (copied ? size : 0));
        uint8_t* bytes = static_cast<uint8_t*>(block) + sizeof(DeepCopy);
        if (copied) std::memcpy(bytes, data, size);
        return new (block) DeepCopy(message, copied ? bytes : nullptr);
    }
    // The block is larger than the object: freed whole, never by size.
    static void operator delete(void* block) { ::operator delete(block); }

private:
    DeepCopy(const Message& message, const uint8_t* bytes) : Message(message) {
        this->data_ = bytes;
    }
};

}  // namespace detail

using SBPSendSetMessageDeepCopy = detail::DeepCopy<SBPSendSetMessage>;
using SBPSendServiceAuthResponseMessageDeepCopy =
    detail::DeepCopy<SBPSendServiceAuthResponseMessage>;
using SBPSendGetResponseMessageDeepCopy = detail::DeepCopy<SBPSendGetResponseMessage>;
using SBPSendServiceAuthChallengeMessageDeepCopy =
    detail::DeepCopy<SBPSendServiceAuthChallengeMessage>;

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
    return SBPSendSetMessageDeepCopy::make(*this, data_, size_);
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
    return SBPSendServiceAuthResponseMessageDeepCopy::make(*this, data_, size_);
}

int SBPSendGetResponseMessage::action() {
    if (ZELSBPSource* source = findSBPSource(endpoint(), serviceId())) {
        source->sendGetResponse(command_, uid_, result_, data_, size_);
    }
    return 0;
}
messaging::ControlMessage* SBPSendGetResponseMessage::clone() const {
    return SBPSendGetResponseMessageDeepCopy::make(*this, data_, size_);
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
    return SBPSendServiceAuthChallengeMessageDeepCopy::make(*this, data_, size_);
}

}  // namespace ControlMessages
}  // namespace zelcdbsdk
