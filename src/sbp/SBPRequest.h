#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <utility>

#include "plat/TimerManager.h"

namespace zelcdbsdk {

class SBPRequest;

// The sink or source that keeps requests and hears about their time-outs.
class SBPRequestOwner {
public:
    virtual ~SBPRequestOwner();
    // The request's timer fired. Non-zero asks for the timer to run again with its interval.
    // The owner may remove (destroy) the request here, and must then return 0.
    virtual int requestTimedOut(SBPRequest& request) = 0;
};

// One outstanding request, on either side, with its own time-out timer.
class SBPRequest : public plat::Timer::Callback {
public:
    enum Flags : uint32_t {
        // sink: the subscription was acknowledged; source: the subscription is active
        kSubscribed = 1,
        // sink: a Cancel went out because the request timed out; later answers are swallowed
        kCancelSent = 2,
        // source: a ServiceAuthChallenge went out and its answer is awaited
        kChallengeSent = 4,
    };

    SBPRequest(SBPRequestOwner* owner, uint32_t command, uint32_t uid, uint16_t packetId,
               uint32_t extra = 0, void* context = nullptr)
        : command(command),
          uid(uid),
          packetId(packetId),
          extra(extra),
          context(context),
          timer(this),
          owner_(owner) {}
    // The timer stops with the record.
    ~SBPRequest() override;

    int timerFired(plat::Timer&) override { return owner_->requestTimedOut(*this); }

    SBPRequestOwner* owner() const { return owner_; }
    // Makes a stopped record as new for another request of the same owner.
    void reset(uint32_t newCommand, uint32_t newUid, uint16_t newPacketId, uint32_t newExtra,
               void* newContext);

    uint32_t command;
    uint32_t uid;
    uint16_t packetId;
    // Cancel: the command cancelled; Subscribe: the subscription type.
    uint32_t extra;
    // Source-side Subscribe: the interval in milliseconds.
    uint32_t interval = 0;
    // The application's word, handed back in every callback about the request.
    void* context;
    plat::Timer timer;
    uint32_t flags = 0;

private:
    SBPRequestOwner* owner_;
};

// The outstanding requests of one sink or source, reachable by (command, uid) and by
// packetId. The two indexes always agree: at most one request per (command, uid) and per
// packetId. Endpoint thread only.
class SBPRequestTable {
public:
    SBPRequestTable() = default;
    SBPRequestTable(const SBPRequestTable&) = delete;
    SBPRequestTable& operator=(const SBPRequestTable&) = delete;

    SBPRequest* findByPacketId(uint16_t packetId) const;
    SBPRequest* find(uint32_t command, uint32_t uid) const;

    // A record for a new request: the one kept from the last removal when it has the same
    // owner, else a new one; null when memory runs out.
    std::unique_ptr<SBPRequest> newRequest(SBPRequestOwner* owner, uint32_t command, uint32_t uid,
                                           uint16_t packetId, uint32_t extra = 0,
                                           void* context = nullptr);

    // Takes the request, first removing any request that holds its packetId or its
    // (command, uid), and starts its timer with timeoutMs. Throws std::bad_alloc (the
    // request is then destroyed).
    SBPRequest& add(std::unique_ptr<SBPRequest> request, int timeoutMs);
    // Stops the request's timer and forgets both its keys; the record is destroyed, or kept
    // for newRequest().
    void remove(SBPRequest& request);
    // Removes every request, as when the service ends.
    void clear();

    size_t size() const { return byPacketId_.size(); }
    bool empty() const { return byPacketId_.empty(); }

    // The next free non-zero packetId, searching upwards from the last one handed out and
    // wrapping at 16 bits; 0 when all 65535 are in use.
    uint16_t allocatePacketId();

    // Visits every request in packetId order; fn may not add or remove requests.
    template <typename Fn>
    void forEach(Fn&& fn) const {
        for (const auto& entry : byPacketId_) fn(*entry.second);
    }

private:
    using Key = std::pair<uint32_t, uint32_t>;  // (command, uid)
    using ByKey = std::map<Key, uint16_t>;
    using ByPacketId = std::map<uint16_t, std::unique_ptr<SBPRequest>>;

    // Enter an index entry, in a kept node when there is one. Both throw std::bad_alloc.
    ByPacketId::iterator insertPacketId(uint16_t packetId);
    void setKey(const Key& key, uint16_t packetId);

    ByKey byKey_;
    ByPacketId byPacketId_;
    uint16_t nextPacketId_ = 0;
    // What the last removal left, kept for the next request: a sink or source that has one
    // request out at a time (a Get and its answer, over and over) then allocates nothing
    // per request. The node of byPacketId_ is kept empty; the record is stopped.
    ByKey::node_type spareKeyNode_;
    ByPacketId::node_type sparePacketIdNode_;
    std::unique_ptr<SBPRequest> spareRecord_;
};

}  // namespace zelcdbsdk
