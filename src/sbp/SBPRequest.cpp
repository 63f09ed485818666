#include "sbp/SBPRequest.h"

namespace zelcdbsdk {

SBPRequestOwner::~SBPRequestOwner() = default;

SBPRequest::~SBPRequest() = default;

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
    auto slot = byPacketId_.emplace(stored.packetId, nullptr).first;
    try {
        byKey_[Key(stored.command, stored.uid)] = stored.packetId;
    } catch (...) {
        byPacketId_.erase(slot);
        throw;
    }
    slot->second = std::move(request);
    stored.timer.start(timeoutMs);
    return stored;
}

void SBPRequestTable::remove(SBPRequest& request) {
    request.timer.stop();
    auto key = byKey_.find(Key(request.command, request.uid));
    if (key != byKey_.end() && key->second == request.packetId) byKey_.erase(key);
    byPacketId_.erase(request.packetId);  // destroys the record
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
