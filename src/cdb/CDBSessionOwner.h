#pragma once

#include <vector>

#include "cdb/CDBEndpointHost.h"
#include "cdb/CDBService.h"
#include "plat/Logger.h"

namespace zelcdbsdk {

// Everything a CDB session needs from the endpoint that runs it, and nothing more, so that
// a session can be run against a fake owner in tests. Called on the session's thread only.
class CDBSessionOwner : public CDBEndpointHost {
public:
    ~CDBSessionOwner() override;

    // The endpoint's own services in registration order, handlers attached. Not changed
    // while a session runs.
    virtual const std::vector<CDBService>& localServices() = 0;
    // The endpoint's CDB version, sent in ServicesRequest and ServicesSupported.
    virtual CDBVersion cdbVersion() = 0;
    // The URL to connect to (client) or listen on (server), NUL-terminated.
    virtual const char* url() = 0;
    // Where the session's lines go (under "CDBSession", "CDBReader", "CDBWriter"); null:
    // the thread's current logger.
    virtual plat::Logger* logger() = 0;

    // The control queue's wake-up descriptor, watched next to the socket; -1 for none.
    virtual int wakeupDescriptor() = 0;
    // The wake-up descriptor was readable: perform the queued control messages.
    virtual void serviceMessages() = 0;
    // Control messages wait that this thread queued for itself without a wake-up byte: the
    // session services them at its next wait without blocking, as if the descriptor were
    // readable.
    virtual bool hasUnsignalledMessages() { return false; }
    // Around the session's wait: beginWait() false means control messages are queued (the
    // session services them instead of blocking); until endWait(), messages posted from
    // other threads signal the wake-up descriptor. An owner whose queue always signals
    // keeps these as they are.
    virtual bool beginWait() { return true; }
    virtual void endWait() {}

    // The connection is established (status 2).
    virtual void sessionConnected() = 0;
    // After every accepted ServicesSupported, twice: first the removed peer services
    // (added false), then the added ones (added true), also when a list is empty. The
    // records are valid only during the call.
    virtual void peerServicesChanged(CDBVersion peerVersion,
                                     const std::vector<const CDBService*>& services,
                                     bool added) = 0;
    // The peer did not answer the ServicesRequest in time.
    virtual void servicesRequestTimedOut() = 0;
};

}  // namespace zelcdbsdk
