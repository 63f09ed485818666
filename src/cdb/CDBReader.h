#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "cdb/CDBProtocolHandler.h"
#include "cdb/CDBService.h"
#include "plat/Logger.h"
#include "rdr/InStream.h"

namespace zelcdbsdk {

// Turns the incoming CDB byte stream into calls on a CDBProtocolHandler. It owns no socket:
// it only reads from a rewindable input stream that reports missing bytes by throwing
// rdr::BlockException, so it can be fed any byte script.
//
// Parsing is a resumable state machine. A state reads all its fields before it changes
// anything, so when the bytes run out half way the stream rewinds and the state simply runs
// again from its start later; after every completed state the stream's checkpoint moves up.
// Payload data and skipped surplus are taken chunk by chunk, so they need not fit the
// stream's buffer. Endpoint thread only.
class CDBReader {
public:
    // Neither the handler nor the stream is owned; both must outlive the reader. Lines are
    // logged under "CDBReader" through logger (null: the thread's current logger).
    CDBReader(CDBProtocolHandler& handler, rdr::InStream& in, plat::Logger* logger);
    ~CDBReader();
    CDBReader(const CDBReader&) = delete;
    CDBReader& operator=(const CDBReader&) = delete;

    // Runs parse states until one complete message has been handled (true) or more input is
    // needed (false). Throws CDBProtocolError for malformed input, and passes on unchanged
    // whatever the stream (other than its block exception) or the handler throws; after a
    // handler's exception the reader carries on with the rest of that message.
    bool processMessages();

private:
    using State = bool (CDBReader::*)();  // false: more input needed

    bool readHeader();
    bool readServicesRequest();
    bool readServicesSupported();
    bool readServiceEntry();
    bool readStartService();
    bool readStopService();
    bool readServicePayload();
    bool collectPayload();
    bool readServiceResponse();
    bool readPing();
    bool readPingResponse();
    bool readByeBye();
    bool skipRest();

    // Takes fieldBytes off the declared length, or throws the truncation error.
    void account(size_t fieldBytes);
    // A message's fields are all read: move the checkpoint past them and go on to the skip
    // state before the handler runs, so a throwing handler leaves a clean message boundary.
    void fieldsDone();
    template <typename Call>
    void deliver(Call call);
    bool deliverPayload(const uint8_t* data);
    void startCollector(size_t length);
    void clearCollector();

    CDBProtocolHandler& handler_;
    rdr::InStream& in_;
    plat::LoggerRef log_;
    State state_;
    uint16_t type_;
    size_t declaredLength_;
    size_t remaining_;  // bytes of the declared length not yet accounted for
    // set while a handler's rdr::BlockException travels out, so it is not taken for
    // missing input
    bool handlerBlocked_;

    // ServicesSupported in progress.
    CDBVersion peerVersion_;
    uint16_t declaredCount_;
    uint16_t entriesLeft_;
    std::vector<CDBService> services_;

    // ServicePayload collector.
    uint16_t payloadServiceId_;
    uint8_t payloadAccessControl_;
    std::unique_ptr<uint8_t[]> payloadBuffer_;
    size_t payloadCapacity_ = 0;
    size_t payloadCollected_;
    size_t payloadExpected_;
    bool collecting_;
    bool copyForced_;  // copying has begun: the rest is collected too, never taken in place
};

}  // namespace zelcdbsdk
