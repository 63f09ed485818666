#include "sbp/SBPRequest.h"

#include <new>

namespace zelcdbsdk {

SBPRequestOwner::~SBPRequestOwner() = default;

SBPRequest::~SBPRequest() = default;

void SBPRequest::reset(uint32_t newCommand, uint32_t newUid, uint16_t newPacketId,
                       uint32_t newExtra, void* newContext) {
    timer.stop();
    command = newCommand;
    uid = newUid;
    packetId = newPacketId;
    extra = newExtra;
    interval = 0;
    context = newContext;
    flags = 0;
}

std::unique_ptr<SBPRequest> SBPRequestTable::newRequest(SBPRequestOwner* owner, uint32_t command,
                                                        uint32_t uid, uint16_t packetId,
                                                        uint32_t extra, void* context) {
    if (spareRecord_ && spareRecord_->owner() == owner) {
        spareRecord_->reset(command, uid, packetId, extra, context);
        return std::move(spareRecord_);
    }
    return std::unique_ptr<SBPRequest>(
        new (std::nothrow) SBPRequest(owner, command, uid, packetId, extra, context));
}

SBPRequest* SBPRequestTable::findByPacketId(uint16_t packetId) const {
    auto it = byPacketId_.find(packetId);
    return it == byPacketId_.end() ? nullptr : it->second.get();
}

SBPRequest* SBPRequestTable::find(uint32_t command, uint32_t uid) const {
    auto it = byKey_.find(Key(command, uid));
    return it == byKey_.end() ? nullptr : findByPacketId(it->second);
}

SBPRequest& SBPRequestTable::add(std::unique_ptr<SBPRequest> request, int timeoutMs) {
    // Replacing only one index entry would leave the other pointing at a dead record.
    if (SBPRequest* old = findByPacketId(request->packetId)) remove(*old);
    if (SBPRequest* old = find(request->command, request->uid)) remove(*old);
    SBPRequest& stored = *request;
    auto slot = insertPacketId(stored.packetId);
    try {
        setKey(Key(stored.command, stored.uid), stored.packetId);
    } catch (...) {
        byPacketId_.erase(slot);
        throw;
    }
    slot->second = std::move(request);
    stored.timer.start(timeoutMs);
    return stored;
}

SBPRequestTable::ByPacketId::iterator SBPRequestTable::insertPacketId(uint16_t packetId) {
    if (sparePacketIdNode_.empty()) return byPacketId_.emplace(packetId, nullptr).first;
    sparePacketIdNode_.key() = packetId;
    // add() has removed any request with this packetId: the key is free.
    return byPacketId_.insert(std::move(sparePacketIdNode_)).position;
}

void SBPRequestTable::setKey(const Key& key, uint16_t packetId) {
    if (spareKeyNode_.empty()) {
        byKey_[key] = packetId;
        return;
    }
    spareKeyNode_.key() = key;
    spareKeyNode_.mapped() = packetId;
    auto result = byKey_.insert(std::move(spareKeyNode_));
    if (!result.inserted) {
        // A stale entry whose packetId names no request: overwritten, as assignment would.
        result.position->second = packetId;
        spareKeyNode_ = std::move(result.node);
    }
}

void SBPRequestTable::remove(SBPRequest& request) {
    request.timer.stop();
    auto key = byKey_.find(Key(request.command, request.uid));
    if (key != byKey_.end() && key->second == request.packetId) {
        ByKey::node_type node = byKey_.extract(key);
        if (spareKeyNode_.empty()) spareKeyNode_ = std::move(node);
    }
    ByPacketId::node_type node = byPacketId_.extract(request.packetId);
    if (node.empty()) return;
    if (!spareRecord_) spareRecord_ = std::move(node.mapped());
    node.mapped().reset();  // a record not kept is destroyed here
    if (sparePacketIdNode_.empty()) sparePacketIdNode_ = std::move(node);
}

void SBPRequestTable::clear() {
    byKey_.clear();
    byPacketId_.clear();
}

uint16_t SBPRequestTable::allocatePacketId() {
    uint16_t start = nextPacketId_;
    do {
        uint16_t candidate = nextPacketId_++;
        if (candidate != 0 && byPacketId_.find(candidate) == byPacketId_.end()) return candidate;
    } while (nextPacketId_ != start);
    return 0;
}

}  // namespace zelcdbsdk
