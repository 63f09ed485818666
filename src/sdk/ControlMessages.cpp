#include "sdk/ControlMessages.h"

#include <cstring>

#include "cdb/CDBSession.h"
#include "sdk/ZELCDBEndpoint.h"

namespace zelcdbsdk {
namespace ControlMessages {

namespace {

// What SendServicePayloadMessage::clone() returns: the same message over its own copy of
// the bytes, freed with it.
class SendServicePayloadMessageDeepCopy : public SendServicePayloadMessage {
public:
    explicit SendServicePayloadMessageDeepCopy(const SendServicePayloadMessage& message)
        : SendServicePayloadMessage(message),
          copy_(message.length() > 0 ? new uint8_t[message.length()] : nullptr) {
        if (copy_) std::memcpy(copy_, message.data(), message.length());
        setData(copy_);
    }
    ~SendServicePayloadMessageDeepCopy() override { delete[] copy_; }
    SendServicePayloadMessageDeepCopy(const SendServicePayloadMessageDeepCopy&) = delete;
    SendServicePayloadMessageDeepCopy& operator=(const SendServicePayloadMessageDeepCopy&) = delete;

private:
    uint8_t* copy_;
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
    return new SendServicePayloadMessageDeepCopy(*this);
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
