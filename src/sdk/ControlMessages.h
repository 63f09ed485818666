#pragma once

#include <cstdint>

#include "cdb/CDBService.h"
#include "messaging/ControlMessage.h"
#include "zelcdbsdk.h"

namespace zelcdbsdk {
namespace ControlMessages {

// How a message posted on the endpoint thread itself is handled (see ZELCDBEndpoint::post).
enum DispatchKind : int32_t {
    // Performed at once when posted on the endpoint thread outside any application
    // callback, so that the CDB session sees it synchronously; queued otherwise.
    kDispatchDirect = 1,
    // Always queued while the endpoint runs: an SBP sink or source must never be re-entered
    // while it is delivering something.
    kDispatchQueued = 2,
};

// Base of every API call that acts on an endpoint. An entry builds one on its stack and
// hands it to ZELCDBEndpoint::post(); when it has to be queued, clone() gives the heap copy
// that owns everything it refers to. action() looks up what it needs (the session, a sink or
// a source) on the calling thread and does nothing when that is absent: only the endpoint
// thread ever finds a session. It reports nothing back to the API caller.
class Message : public messaging::ControlMessage {
public:
    int32_t kind() const { return kind_; }
    ZELCDBEndpoint* endpoint() const { return endpoint_; }

    // The base cannot be queued; every message that may be queued overrides this.
    messaging::ControlMessage* clone() const override { return nullptr; }

protected:
    Message(int32_t kind, ZELCDBEndpoint* endpoint) : kind_(kind), endpoint_(endpoint) {}
    Message(const Message&) = default;
    Message& operator=(const Message&) = delete;

private:
    int32_t kind_;
    ZELCDBEndpoint* endpoint_;  // not owned
};

// Addresses the SBP sink of a peer service. Always queued.
class SBPSinkMessage : public Message {
public:
    uint16_t serviceId() const { return static_cast<uint16_t>(serviceId_); }

protected:
    SBPSinkMessage(ZELCDBEndpoint* endpoint, uint16_t peerServiceId)
        : Message(kDispatchQueued, endpoint), serviceId_(peerServiceId) {}
    SBPSinkMessage(const SBPSinkMessage&) = default;

private:
    uint32_t serviceId_;
};

// Addresses the SBP source of a local service. Always queued.
class SBPSourceMessage : public Message {
public:
    uint16_t serviceId() const { return static_cast<uint16_t>(serviceId_); }

protected:
    SBPSourceMessage(ZELCDBEndpoint* endpoint, uint16_t localServiceId)
        : Message(kDispatchQueued, endpoint), serviceId_(localServiceId) {}
    SBPSourceMessage(const SBPSourceMessage&) = default;

private:
    uint32_t serviceId_;
};

// Asks the session to end its loop (ByeBye when connected).
class StopMessage : public Message {
public:
    explicit StopMessage(ZELCDBEndpoint* endpoint) : Message(kDispatchDirect, endpoint) {}
    int action() override;
    messaging::ControlMessage* clone() const override;
};

class SendStartServiceMessage : public Message {
public:
    SendStartServiceMessage(ZELCDBEndpoint* endpoint, uint16_t serviceId)
        : Message(kDispatchDirect, endpoint), serviceId_(serviceId) {}
    int action() override;
    messaging::ControlMessage* clone() const override;

private:
    uint16_t serviceId_;
};

class SendStopServiceMessage : public Message {
public:
    SendStopServiceMessage(ZELCDBEndpoint* endpoint, uint16_t serviceId)
        : Message(kDispatchDirect, endpoint), serviceId_(serviceId) {}
    int action() override;
    messaging::ControlMessage* clone() const override;

private:
    uint16_t serviceId_;
};

// Refers to the caller's bytes; its clone owns a copy of them, so the caller may reuse its
// buffer as soon as the API call returns.
class SendServicePayloadMessage : public Message {
public:
    SendServicePayloadMessage(ZELCDBEndpoint* endpoint, uint16_t serviceId, const uint8_t* data,
                              uint32_t length)
        : Message(kDispatchDirect, endpoint), serviceId_(serviceId), data_(data), length_(length) {}
    int action() override;
    // Throws std::bad_alloc when the copy cannot be made.
    messaging::ControlMessage* clone() const override;

    const uint8_t* data() const { return data_; }
    uint32_t length() const { return length_; }

protected:
    SendServicePayloadMessage(const SendServicePayloadMessage&) = default;
    void setData(const uint8_t* data) { data_ = data; }

private:
    uint16_t serviceId_;
    const uint8_t* data_;  // not owned
    uint32_t length_;
};

class SendServiceResponseMessage : public Message {
public:
    SendServiceResponseMessage(ZELCDBEndpoint* endpoint, uint16_t serviceId, uint16_t response)
        : Message(kDispatchDirect, endpoint), serviceId_(serviceId), response_(response) {}
    int action() override;
    messaging::ControlMessage* clone() const override;

private:
    uint16_t serviceId_;
    uint32_t response_;
};

// Attaches a sink handler to a peer service. Every instance, the caller's and each clone,
// holds one reference to the handler, so a handler that never reaches the session is freed
// with the last message that carried it.
class AddSinkMessage : public Message {
public:
    AddSinkMessage(ZELCDBEndpoint* endpoint, uint16_t peerServiceId, CDBService::Handler* handler)
        : Message(kDispatchDirect, endpoint), serviceId_(peerServiceId), handler_(handler) {}
    int action() override;
    messaging::ControlMessage* clone() const override;

    CDBService::Handler* handler() const { return handler_.get(); }

private:
    AddSinkMessage(const AddSinkMessage&) = default;

    uint16_t serviceId_;
    CDBService::HandlerRef handler_;
};

}  // namespace ControlMessages
}  // namespace zelcdbsdk
