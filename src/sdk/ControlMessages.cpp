#include "sdk/ControlMessages.h"

#include <cstring>
#include <new>

#include "cdb/CDBSession.h"
#include "sdk/ZELCDBEndpoint.h"

namespace zelcdbsdk {
namespace ControlMessages {

namespace {

// What SendServicePayloadMessage::clone() returns: the same message over its own copy of
// the bytes, which lives in the same block, behind the message, so that a queued payload
// costs one allocation rather than two.
class SendServicePayloadMessageDeepCopy final : public SendServicePayloadMessage {
public:
    // Throws std::bad_alloc.
    static SendServicePayloadMessageDeepCopy* make(const SendServicePayloadMessage& message) {
        uint32_t length = message.data() != nullptr ? message.length() : 0;
        void* block = ::operator new(sizeof(SendServicePayloadMessageDeepCopy) + length);
        uint8_t* bytes = static_cast<uint8_t*>(block) + sizeof(SendServicePayloadMessageDeepCopy);
        if (length > 0) std::memcpy(bytes, message.data(), length);
        return new (block) SendServicePayloadMessageDeepCopy(message, length > 0 ? bytes : nullptr);
    }
    // The block is larger than the object: freed whole, never by size.
    static void operator delete(void* block) { ::operator delete(block); }

private:
    SendServicePayloadMessageDeepCopy(const SendServicePayloadMessage& message,
                                      const uint8_t* bytes)
        : SendServicePayloadMessage(message) {
        setData(bytes);
    }
};

}  // namespace

int StopMessage::action() {
    if (CDBSession* session = endpoint()->session()) session->terminate();
    return 0;
}

messaging::ControlMessage* StopMessage::clone() const {
    return new StopMessage(*this);
}

int SendStartServiceMessage::action() {
    if (CDBSession* session = endpoint()->session()) session->startPeerService(serviceId_);
    return 0;
}

messaging::ControlMessage* SendStartServiceMessage::clone() const {
    return new SendStartServiceMessage(*this);
}

int SendStopServiceMessage::action() {
    if (CDBSession* session = endpoint()->session()) session->stopPeerService(serviceId_);
    return 0;
}

messaging::ControlMessage* SendStopServiceMessage::clone() const {
    return new SendStopServiceMessage(*this);
}

int SendServicePayloadMessage::action() {
    if (CDBSession* session = endpoint()->session()) {
        session->sendServicePayload(serviceId_, data_, length_);
    }
    return 0;
}

messaging::ControlMessage* SendServicePayloadMessage::clone() const {
    return SendServicePayloadMessageDeepCopy::make(*this);
}

int SendServiceResponseMessage::action() {
    if (CDBSession* session = endpoint()->session()) {
        session->sendServiceResponse(serviceId_, static_cast<uint16_t>(response_));
    }
    return 0;
}

messaging::ControlMessage* SendServiceResponseMessage::clone() const {
    return new SendServiceResponseMessage(*this);
}

int AddSinkMessage::action() {
    if (CDBSession* session = endpoint()->session()) session->addSink(serviceId_, handler_.get());
    return 0;
}

messaging::ControlMessage* AddSinkMessage::clone() const {
    return new AddSinkMessage(*this);
}

}  // namespace ControlMessages
}  // namespace zelcdbsdk
