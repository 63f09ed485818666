#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <tuple>
#include <utility>

#include "cdb/CDBService.h"
#include "cdb/CDBSession.h"
#include "messaging/ControlMessage.h"
#include "sbp/ZELSBPSink.h"
#include "sbp/ZELSBPSource.h"
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

// The caller's bytes a message refers to. A queued copy points at its own copy of them, in
// the same storage as the message.
struct ByteView {
    const uint8_t* data;
    uint32_t size;
};

// Base of every API call that acts on an endpoint. An entry builds one on its stack and
// hands it to ZELCDBEndpoint::post(); when it has to be queued, the queue copies it into
// storage it keeps (copyInto), deep copies included. action() looks up what it needs (the
// session, a sink or a source) on the calling thread and does nothing when that is absent:
// only the endpoint thread ever finds a session. It reports nothing back to the API caller.
class Message : public messaging::ControlMessage {
public:
    int32_t kind() const { return kind_; }
    ZELCDBEndpoint* endpoint() const { return endpoint_; }

protected:
    Message(int32_t kind, ZELCDBEndpoint* endpoint) : kind_(kind), endpoint_(endpoint) {}
    Message(const Message&) = default;
    Message& operator=(const Message&) = delete;

private:
    int32_t kind_;
    ZELCDBEndpoint* endpoint_;  // not owned
};

// What a message acts on, found on the endpoint thread (null elsewhere or when absent).
CDBSession* findSession(ZELCDBEndpoint* endpoint);
// The sink attached to a peer service, or null (no session, no sink, or a plain CDB sink).
ZELSBPSink* findSBPSink(ZELCDBEndpoint* endpoint, uint16_t peerServiceId);
// The SBP source registered under a local service ID, or null.
ZELSBPSource* findSBPSource(ZELCDBEndpoint* endpoint, uint16_t localServiceId);

// The session: every argument goes to the method.
struct ToSession {
    static constexpr int32_t kKind = kDispatchDirect;
    template <auto Method, typename... Passed>
    static void perform(ZELCDBEndpoint* endpoint, Passed&&... passed) {
        if (CDBSession* session = findSession(endpoint)) {
            (session->*Method)(std::forward<Passed>(passed)...);
        }
    }
};

// The SBP sink of a peer service, named by the first argument. Always queued, so that a
// sink or source is never re-entered from inside one of its own callbacks.
struct ToSink {
    static constexpr int32_t kKind = kDispatchQueued;
    template <auto Method, typename... Passed>
    static void perform(ZELCDBEndpoint* endpoint, uint16_t peerServiceId, Passed&&... passed) {
        if (ZELSBPSink* sink = findSBPSink(endpoint, peerServiceId)) {
            (sink->*Method)(std::forward<Passed>(passed)...);
        }
    }
};

// The SBP source of a local service, named by the first argument. Always queued.
struct ToSource {
    static constexpr int32_t kKind = kDispatchQueued;
    template <auto Method, typename... Passed>
    static void perform(ZELCDBEndpoint* endpoint, uint16_t localServiceId, Passed&&... passed) {
        if (ZELSBPSource* source = findSBPSource(endpoint, localServiceId)) {
            (source->*Method)(std::forward<Passed>(passed)...);
        }
    }
};

namespace detail {

// How a stored argument reaches the method: bytes as (data, size), a handler reference as
// the handler, anything else as it is.
template <typename T>
std::tuple<const T&> passed(const T& value) {
    return std::tuple<const T&>(value);
}
inline std::tuple<const uint8_t*, uint32_t> passed(const ByteView& bytes) {
    return {bytes.data, bytes.size};
}
inline std::tuple<CDBService::Handler*> passed(const CDBService::HandlerRef& handler) {
    return {handler.get()};
}

// The deep copy of the caller's bytes into the storage behind a queued message.
template <typename T>
size_t bytesOf(const T&) {
    return 0;
}
inline size_t bytesOf(const ByteView& bytes) {
    return bytes.data != nullptr ? bytes.size : 0;
}
template <typename T>
void copyBytes(T&, uint8_t*&) {}
inline void copyBytes(ByteView& bytes, uint8_t*& storage) {
    if (bytes.data == nullptr || bytes.size == 0) {
        bytes.data = nullptr;
        return;
    }
    std::memcpy(storage, bytes.data, bytes.size);
    bytes.data = storage;
    storage += bytes.size;
}

}  // namespace detail

// One API call: performed on the endpoint thread as Target's Method over the arguments the
// entry was given. A queued copy owns copies of the bytes (ByteView) and a further reference
// to a handler (CDBService::HandlerRef), so the caller may reuse its buffer, or let go of its
// handler, as soon as the API call returns.
template <typename Target, auto Method, typename... Args>
class Call final : public Message {
public:
    template <typename... Given>
    explicit Call(ZELCDBEndpoint* endpoint, Given&&... given)
        : Message(Target::kKind, endpoint), args_(std::forward<Given>(given)...) {}

    int action() override {
        std::apply(
            [this](const auto&... passed) {
                Target::template perform<Method>(endpoint(), passed...);
            },
            std::apply([](const auto&... args) { return std::tuple_cat(detail::passed(args)...); },
                       args_));
        return 0;
    }

    size_t copySize() const override {
        return std::apply(
            [](const auto&... args) {
                return sizeof(Call) + (size_t{0} + ... + detail::bytesOf(args));
            },
            args_);
    }

    messaging::ControlMessage* copyInto(void* storage) const override {
        static_assert(alignof(Call) <= alignof(std::max_align_t), "queue storage alignment");
        Call* copy = new (storage) Call(*this);
        uint8_t* bytes = static_cast<uint8_t*>(storage) + sizeof(Call);
        std::apply([&bytes](auto&... args) { (detail::copyBytes(args, bytes), ...); }, copy->args_);
        return copy;
    }

private:
    Call(const Call&) = default;

    std::tuple<Args...> args_;
};

// The endpoint's commands.
using StopMessage = Call<ToSession, &CDBSession::terminate>;
using SendStartServiceMessage = Call<ToSession, &CDBSession::startPeerService, uint16_t>;
using SendStopServiceMessage = Call<ToSession, &CDBSession::stopPeerService, uint16_t>;
using SendServicePayloadMessage =
    Call<ToSession, &CDBSession::sendServicePayload, uint16_t, ByteView>;
using SendServiceResponseMessage =
    Call<ToSession, &CDBSession::sendServiceResponse, uint16_t, uint16_t>;
// Attaches a sink handler to a peer service. A handler that never reaches the session is
// freed with the last message that carried it.
using AddSinkMessage = Call<ToSession, &CDBSession::addSink, uint16_t, CDBService::HandlerRef>;

// The SBP sink's commands: (peer service ID, then the method's arguments).
using SBPSendGetMessage = Call<ToSink, &ZELSBPSink::sendGet, uint16_t, void*, uint32_t>;
using SBPSendSetMessage = Call<ToSink, &ZELSBPSink::sendSet, uint16_t, void*, uint32_t, ByteView>;
using SBPSendSubscribeMessage =
    Call<ToSink, &ZELSBPSink::sendSubscribe, uint16_t, void*, uint32_t, uint32_t, uint32_t>;
using SBPSendCancelMessage =
    Call<ToSink, &ZELSBPSink::sendCancel, uint16_t, void*, uint32_t, uint32_t>;
using SBPSendAliveMessage = Call<ToSink, &ZELSBPSink::sendAlive, uint16_t, void*, int32_t>;
using SBPSendServiceAuthResponseMessage =
    Call<ToSink, &ZELSBPSink::sendServiceAuthResponse, uint16_t, void*, uint32_t, uint32_t,
         uint32_t, ByteView>;

// The SBP source's answers: (local service ID, then the method's arguments). The source
// finds the request by (command, uid); the entries' request context is not carried.
using SBPSendGetResponseMessage = Call<ToSource, &ZELSBPSource::sendGetResponse, uint16_t, uint32_t,
                                       uint32_t, uint32_t, ByteView>;
using SBPSendSetResponseMessage =
    Call<ToSource, &ZELSBPSource::sendSetResponse, uint16_t, uint32_t, uint32_t>;
using SBPSendSubscribeResponseMessage =
    Call<ToSource, &ZELSBPSource::sendSubscribeResponse, uint16_t, uint32_t, uint32_t>;
using SBPSendServiceAuthChallengeMessage =
    Call<ToSource, &ZELSBPSource::sendServiceAuthChallenge, uint16_t, uint32_t, uint32_t, ByteView>;

}  // namespace ControlMessages
}  // namespace zelcdbsdk
