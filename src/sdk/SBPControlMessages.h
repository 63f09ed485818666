#pragma once

#include <cstddef>
#include <cstdint>

#include "sdk/ControlMessages.h"

class ZELSBPSink;
class ZELSBPSource;

namespace zelcdbsdk {
namespace ControlMessages {

// The SBP sink and source commands. Each names its service and carries the entry's
// arguments; its action finds the sink or source on the endpoint thread and does nothing
// when there is none. All of them are always queued while the endpoint runs, so a sink or
// source is never re-entered from inside one of its own callbacks. Messages that refer to
// the caller's bytes clone into deep copies that own them.

class SBPSendGetMessage : public SBPSinkMessage {
public:
    SBPSendGetMessage(ZELCDBEndpoint* endpoint, uint16_t serviceId, void* context, uint32_t uid)
        : SBPSinkMessage(endpoint, serviceId), context_(context), uid_(uid) {}
    int action() override;
    messaging::ControlMessage* clone() const override;

private:
    SBPSendGetMessage(const SBPSendGetMessage&) = default;
    void* context_;
    uint32_t uid_;
};

class SBPSendSetMessage : public SBPSinkMessage {
public:
    SBPSendSetMessage(ZELCDBEndpoint* endpoint, uint16_t serviceId, void* context, uint32_t uid,
                      const uint8_t* data, uint32_t size)
        : SBPSinkMessage(endpoint, serviceId),
          context_(context),
          uid_(uid),
          data_(data),
          size_(size) {}
    int action() override;
    // Throws std::bad_alloc when the copy cannot be made.
    messaging::ControlMessage* clone() const override;

protected:
    SBPSendSetMessage(const SBPSendSetMessage&) = default;
    void* context_;
    uint32_t uid_;
    const uint8_t* data_;  // not owned
    uint32_t size_;
};

class SBPSendSubscribeMessage : public SBPSinkMessage {
public:
    SBPSendSubscribeMessage(ZELCDBEndpoint* endpoint, uint16_t serviceId, void* context,
                            uint32_t uid, uint32_t type, uint32_t interval)
        : SBPSinkMessage(endpoint, serviceId),
          context_(context),
          uid_(uid),
          type_(type),
          interval_(interval) {}
    int action() override;
    messaging::ControlMessage* clone() const override;

private:
    SBPSendSubscribeMessage(const SBPSendSubscribeMessage&) = default;
    void* context_;
    uint32_t uid_;
    uint32_t type_;
    uint32_t interval_;
};

class SBPSendCancelMessage : public SBPSinkMessage {
public:
    SBPSendCancelMessage(ZELCDBEndpoint* endpoint, uint16_t serviceId, void* context, uint32_t uid,
                         uint32_t command)
        : SBPSinkMessage(endpoint, serviceId), context_(context), uid_(uid), command_(command) {}
    int action() override;
    messaging::ControlMessage* clone() const override;

private:
    SBPSendCancelMessage(const SBPSendCancelMessage&) = default;
    void* context_;
    uint32_t uid_;
    uint32_t command_;
};

class SBPSendAliveMessage : public SBPSinkMessage {
public:
    SBPSendAliveMessage(ZELCDBEndpoint* endpoint, uint16_t serviceId, void* context,
                        int32_t intervalSeconds)
        : SBPSinkMessage(endpoint, serviceId), context_(context), interval_(intervalSeconds) {}
    int action() override;
    messaging::ControlMessage* clone() const override;

private:
    SBPSendAliveMessage(const SBPSendAliveMessage&) = default;
    void* context_;
    int32_t interval_;
};

class SBPSendServiceAuthResponseMessage : public SBPSinkMessage {
public:
    SBPSendServiceAuthResponseMessage(ZELCDBEndpoint* endpoint, uint16_t serviceId, void* context,
                                      uint32_t command, uint32_t uid, uint32_t result,
                                      const uint8_t* data, uint32_t size)
        : SBPSinkMessage(endpoint, serviceId),
          context_(context),
          command_(command),
          uid_(uid),
          result_(result),
          data_(data),
          size_(size) {}
    int action() override;
    messaging::ControlMessage* clone() const override;

protected:
    SBPSendServiceAuthResponseMessage(const SBPSendServiceAuthResponseMessage&) = default;
    void* context_;
    uint32_t command_;
    uint32_t uid_;
    uint32_t result_;
    const uint8_t* data_;  // not owned
    uint32_t size_;
};

class SBPSendGetResponseMessage : public SBPSourceMessage {
public:
    SBPSendGetResponseMessage(ZELCDBEndpoint* endpoint, uint16_t serviceId, void* context,
                              uint32_t command, uint32_t uid, uint32_t result, const uint8_t* data,
                              uint32_t size)
        : SBPSourceMessage(endpoint, serviceId),
          context_(context),
          command_(command),
          uid_(uid),
          result_(result),
          data_(data),
          size_(size) {}
    int action() override;
    messaging::ControlMessage* clone() const override;

protected:
    SBPSendGetResponseMessage(const SBPSendGetResponseMessage&) = default;
    void* context_;
    uint32_t command_;
    uint32_t uid_;
    uint32_t result_;
    const uint8_t* data_;  // not owned
    uint32_t size_;
};

class SBPSendSetResponseMessage : public SBPSourceMessage {
public:
    SBPSendSetResponseMessage(ZELCDBEndpoint* endpoint, uint16_t serviceId, void* context,
                              uint32_t uid, uint32_t result)
        : SBPSourceMessage(endpoint, serviceId), context_(context), uid_(uid), result_(result) {}
    int action() override;
    messaging::ControlMessage* clone() const override;

private:
    SBPSendSetResponseMessage(const SBPSendSetResponseMessage&) = default;
    // Carried as the entry was given it; the source finds the request by (command, uid).
    [[maybe_unused]] void* context_;
    uint32_t uid_;
    uint32_t result_;
};

class SBPSendSubscribeResponseMessage : public SBPSourceMessage {
public:
    SBPSendSubscribeResponseMessage(ZELCDBEndpoint* endpoint, uint16_t serviceId, void* context,
                                    uint32_t uid, uint32_t result)
        : SBPSourceMessage(endpoint, serviceId), context_(context), uid_(uid), result_(result) {}
    int action() override;
    messaging::ControlMessage* clone() const override;

private:
    SBPSendSubscribeResponseMessage(const SBPSendSubscribeResponseMessage&) = default;
    // Carried as the entry was given it; the source finds the request by (command, uid).
    [[maybe_unused]] void* context_;
    uint32_t uid_;
    uint32_t result_;
};

class SBPSendServiceAuthChallengeMessage : public SBPSourceMessage {
public:
    SBPSendServiceAuthChallengeMessage(ZELCDBEndpoint* endpoint, uint16_t serviceId, void* context,
                                       uint32_t command, uint32_t uid, const uint8_t* data,
                                       uint32_t size)
        : SBPSourceMessage(endpoint, serviceId),
          context_(context),
          command_(command),
          uid_(uid),
          data_(data),
          size_(size) {}
    int action() override;
    messaging::ControlMessage* clone() const override;

protected:
    SBPSendServiceAuthChallengeMessage(const SBPSendServiceAuthChallengeMessage&) = default;
    void* context_;
    uint32_t command_;
    uint32_t uid_;
    const uint8_t* data_;  // not owned
    uint32_t size_;
};

// The sink attached to a peer service, or null (no session, no sink, or a plain CDB sink).
ZELSBPSink* findSBPSink(ZELCDBEndpoint* endpoint, uint16_t peerServiceId);
// The SBP source registered under a local service ID, or null.
ZELSBPSource* findSBPSource(ZELCDBEndpoint* endpoint, uint16_t localServiceId);

}  // namespace ControlMessages
}  // namespace zelcdbsdk
