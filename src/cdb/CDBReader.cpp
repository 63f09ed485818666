#include "cdb/CDBReader.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "cdb/CDBProtocolError.h"
#include "cdb/CDBWire.h"
#include "plat/Exception.h"
#include "rdr/Exceptions.h"

namespace zelcdbsdk {

namespace {

constexpr size_t kServiceEntryFixedLength = 7;

}  // namespace

CDBReader::CDBReader(CDBProtocolHandler& handler, rdr::InStream& in, plat::Logger* logger)
    : handler_(handler),
      in_(in),
      log_{"CDBReader", logger},
      state_(&CDBReader::readHeader),
      type_(0),
      declaredLength_(0),
      remaining_(0),
      handlerBlocked_(false),
      peerVersion_{0, 0},
      declaredCount_(0),
      entriesLeft_(0),
      payloadServiceId_(0),
      payloadAccessControl_(0),
      payloadCollected_(0),
      payloadExpected_(0),
      collecting_(false),
      copyForced_(false) {}

CDBReader::~CDBReader() = default;

bool CDBReader::processMessages() {
    for (;;) {
        if (state_ == nullptr) throw rdr::NullStateException();
        // Between two messages with no whole header buffered and no more to be had: the
        // usual end of every batch, told here without the block exception that the header
        // state would throw for it (an allocation and an unwind each time). The stream is
        // left at the checkpoint either way.
        if (state_ == &CDBReader::readHeader && in_.available() < kCDBHeaderLength &&
            !in_.overrun(false, kCDBHeaderLength)) {
            return false;
        }
        bool completed;
        try {
            completed = (this->*state_)();
        } catch (const rdr::BlockException&) {
            if (handlerBlocked_) {
                handlerBlocked_ = false;
                throw;
            }
            return false;  // the stream is back at the checkpoint; the state runs again later
        }
        if (!completed) return false;
        in_.setCheckpoint();
        if (state_ == nullptr) {
            state_ = &CDBReader::readHeader;
            return true;
        }
    }
}

template <typename Call>
void CDBReader::deliver(Call call) {
    try {
        call();
    } catch (const rdr::BlockException&) {
        handlerBlocked_ = true;
        throw;
    }
}

void CDBReader::account(size_t fieldBytes) {
    if (remaining_ < fieldBytes) {
        throw CDBProtocolError(
            "Received message of type 0x%02x with truncated payload (payload length was %zu)",
            type_, declaredLength_);
    }
    remaining_ -= fieldBytes;
}

void CDBReader::fieldsDone() {
    state_ = &CDBReader::skipRest;
    in_.setCheckpoint();
}

bool CDBReader::readHeader() {
    uint16_t type = in_.readU16();
    uint16_t length = in_.readU16();
    State next;
    switch (type) {
        case kCDBServicesRequest:
            next = &CDBReader::readServicesRequest;
            break;
        case kCDBServicesSupported:
            next = &CDBReader::readServicesSupported;
            break;
        case kCDBStartService:
            next = &CDBReader::readStartService;
            break;
        case kCDBStopService:
            next = &CDBReader::readStopService;
            break;
        case kCDBServicePayload:
            next = &CDBReader::readServicePayload;
            break;
        case kCDBPingResponse:
            next = &CDBReader::readPingResponse;
            break;
        case kCDBServiceResponse:
            next = &CDBReader::readServiceResponse;
            break;
        case kCDBPing:
            next = &CDBReader::readPing;
            break;
        case kCDBByeBye:
            next = &CDBReader::readByeBye;
            break;
        default:
            throw CDBProtocolError("Unknown message type %d (0x%04x)", type, type);
    }
    type_ = type;
    declaredLength_ = length;
    remaining_ = length;
    state_ = next;
    return true;
}

bool CDBReader::readServicesRequest() {
    CDBVersion version;
    version.majorNumber = in_.readU8();
    version.minorNumber = in_.readU8();
    account(2);
    fieldsDone();
    log_.debug("Received ServicesRequest (endpoint version %d.%d)", version.majorNumber,
               version.minorNumber);
    deliver([&] { handler_.handleServicesRequest(version); });
    return true;
}

bool CDBReader::readServicesSupported() {
    CDBVersion version;
    version.majorNumber = in_.readU8();
    version.minorNumber = in_.readU8();
    uint16_t count = in_.readU16();
    account(4);
    if (count == 0) {
        fieldsDone();
        std::vector<CDBService> none;
        log_.debug("Received ServicesSupported (endpoint version %d.%d, %zu services)",
                   version.majorNumber, version.minorNumber, none.size());
        deliver([&] { handler_.handleServicesSupported(version, none, count); });
        return true;
    }
    peerVersion_ = version;
    declaredCount_ = count;
    entriesLeft_ = count;
    services_.clear();
    // The declared count is the peer's word; the declared length bounds what can follow.
    services_.reserve(std::min<size_t>(count, remaining_ / kServiceEntryFixedLength));
    state_ = &CDBReader::readServiceEntry;
    return true;
}

bool CDBReader::readServiceEntry() {
    uint8_t nameScratch[255];
    CDBService service;
    service.id = in_.readU16();
    service.version.majorNumber = in_.readU8();
    service.version.minorNumber = in_.readU8();
    service.serviceAttribute = in_.readU8();
    service.accessControl = in_.readU8();
    uint8_t nameLength = in_.readU8();
    const uint8_t* name = in_.getBytes(nameScratch, nameLength);
    account(kServiceEntryFixedLength + nameLength);
    service.setName(reinterpret_cast<const char*>(name), nameLength);
    services_.push_back(std::move(service));
    if (--entriesLeft_ > 0) return true;

    fieldsDone();
    std::vector<CDBService> services;
    services.swap(services_);
    log_.debug("Received ServicesSupported (endpoint version %d.%d, %zu services)",
               peerVersion_.majorNumber, peerVersion_.minorNumber, services.size());
    deliver([&] { handler_.handleServicesSupported(peerVersion_, services, declaredCount_); });
    return true;
}

bool CDBReader::readStartService() {
    uint16_t serviceId = in_.readU16();
    CDBVersion version;
    version.majorNumber = in_.readU8();
    version.minorNumber = in_.readU8();
    account(4);
    fieldsDone();
    log_.debug("Received StartService, service %d (0x%04x), version %d.%d", serviceId, serviceId,
               version.majorNumber, version.minorNumber);
    deliver([&] { handler_.handleStartService(serviceId, version); });
    return true;
}

bool CDBReader::readStopService() {
    uint16_t serviceId = in_.readU16();
    account(2);
    fieldsDone();
    log_.debug("Received StopService, service %d (0x%04x)", serviceId, serviceId);
    deliver([&] { handler_.handleStopService(serviceId); });
    return true;
}

bool CDBReader::readServiceResponse() {
    uint16_t serviceId = in_.readU16();
    uint16_t code = in_.readU16();
    account(4);
    fieldsDone();
    log_.debug("Received ServiceResponse, service %d (0x%04x), response %04x", serviceId, serviceId,
               code);
    deliver([&] { handler_.handleServiceResponse(serviceId, code); });
    return true;
}

bool CDBReader::readPing() {
    uint16_t sequence = in_.readU16();
    account(2);
    fieldsDone();
    log_.debug("Received Ping, sequence number %hu", sequence);
    deliver([&] { handler_.handlePing(sequence); });
    return true;
}

bool CDBReader::readPingResponse() {
    uint16_t sequence = in_.readU16();
    account(2);
    fieldsDone();
    log_.debug("Received PingResponse, sequence number %hu", sequence);
    deliver([&] { handler_.handlePingResponse(sequence); });
    return true;
}

bool CDBReader::readByeBye() {
    account(0);
    fieldsDone();
    log_.debug("Received ByeBye");
    deliver([&] { handler_.handleByeBye(); });
    return true;
}

bool CDBReader::readServicePayload() {
    uint16_t serviceId = in_.readU16();
    uint8_t accessControl = in_.readU8();
    account(3);
    if (remaining_ > kMaxServicePayloadLength) {
        log_.info("Received ServicePayload with length %zu, but maximum is %zu - discarding it",
                  remaining_, kMaxServicePayloadLength);
        state_ = &CDBReader::skipRest;
        return true;
    }
    startCollector(remaining_);
    payloadServiceId_ = serviceId;
    payloadAccessControl_ = accessControl;
    state_ = &CDBReader::collectPayload;
    return true;
}

void CDBReader::startCollector(size_t length) {
    if (collecting_) {
        if (length != payloadExpected_) throw plat::Exception("ByteReader::init: bad len");
        return;
    }
    collecting_ = true;
    copyForced_ = false;
    payloadExpected_ = length;
    payloadCollected_ = 0;
}

void CDBReader::clearCollector() {
    collecting_ = false;
    copyForced_ = false;
    payloadExpected_ = 0;
    payloadCollected_ = 0;
}

bool CDBReader::collectPayload() {
    if (!copyForced_) {
        // Give the stream one chance to bring in the whole payload without waiting; if it is
        // then all buffered, the handler reads it where it lies.
        if (in_.available() < payloadExpected_) in_.overrun(false, payloadExpected_);
        if (in_.available() >= payloadExpected_) {
            const uint8_t* data = in_.ptr();
            in_.skip(payloadExpected_);
            return deliverPayload(data);
        }
        // Forced only once the block exists: a failed allocation leaves the state to run
        // again from its start. The block is kept for the next split payload, so that a
        // steady stream allocates nothing; it grows to at most the largest payload.
        if (payloadCapacity_ < payloadExpected_) {
            std::unique_ptr<uint8_t[]> larger(new uint8_t[payloadExpected_]);
            payloadBuffer_ = std::move(larger);
            payloadCapacity_ = payloadExpected_;
        }
        copyForced_ = true;
    }
    for (;;) {
        size_t chunk = std::min(in_.available(), payloadExpected_ - payloadCollected_);
        if (chunk > 0) {
            std::memcpy(payloadBuffer_.get() + payloadCollected_, in_.ptr(), chunk);
            in_.skip(chunk);
            payloadCollected_ += chunk;
            in_.setCheckpoint();
        }
        if (payloadCollected_ == payloadExpected_) break;
        if (in_.overrun(false, payloadExpected_ - payloadCollected_) == 0 && in_.available() == 0)
            return false;
    }
    return deliverPayload(payloadBuffer_.get());
}

bool CDBReader::deliverPayload(const uint8_t* data) {
    size_t length = payloadExpected_;
    uint16_t serviceId = payloadServiceId_;
    uint8_t accessControl = payloadAccessControl_;
    account(length);
    // The handler reads the block in place: nothing collects into it before it returns.
    clearCollector();
    fieldsDone();
    log_.debug("Received ServicePayload, service %d (0x%04x), length %d", serviceId, serviceId,
               static_cast<int>(length));
    deliver([&] { handler_.handleServicePayload(serviceId, accessControl, length, data); });
    return true;
}

bool CDBReader::skipRest() {
    while (remaining_ > 0) {
        if (in_.available() == 0 && in_.overrun(false, remaining_) == 0 && in_.available() == 0)
            return false;
        size_t chunk = std::min(in_.available(), remaining_);
        in_.skip(chunk);
        remaining_ -= chunk;
        in_.setCheckpoint();
    }
    state_ = nullptr;
    return true;
}

}  // namespace zelcdbsdk
