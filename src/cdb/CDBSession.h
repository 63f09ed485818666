#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "cdb/CDBProtocolHandler.h"
#include "cdb/CDBReader.h"
#include "cdb/CDBService.h"
#include "cdb/CDBSessionOwner.h"
#include "cdb/CDBWriter.h"
#include "mirrorlink/SocketInStream.h"
#include "mirrorlink/SocketOutStream.h"
#include "mirrorlink/TcpConnector.h"
#include "mirrorlink/TcpSocket.h"
#include "plat/Logger.h"
#include "plat/TimerManager.h"

namespace zelcdbsdk {

// One CDB connection from its start to its end: connects (client) or listens and accepts
// one peer (server), exchanges the service directory, keeps the link alive with pings,
// dispatches what the reader decodes, watches outstanding service requests with timers and
// ends with the ByeBye handshake.
//
// A session belongs to one thread, the endpoint thread: it is created there (its timer
// manager binds to that thread), run there, and every operation below is called there,
// directly or from a control message serviced by run(). Nothing here is locked.
class CDBSession : public CDBProtocolHandler, public plat::Timer::Callback {
public:
    enum State { Idle, Connecting, Connected, Closing, Disconnected };

    // The session for a client endpoint (services 0x0001..0x3FFF are ours) or a server
    // endpoint (0x4001..0x7FFF are ours). The owner is not owned and must outlive it.
    static std::unique_ptr<CDBSession> createClient(CDBSessionOwner& owner);
    static std::unique_ptr<CDBSession> createServer(CDBSessionOwner& owner);

    ~CDBSession() override;
    CDBSession(const CDBSession&) = delete;
    CDBSession& operator=(const CDBSession&) = delete;

    // The session loop: returns once the session is Disconnected. Connection, network and
    // protocol failures (and whatever a handler or a serviced control message throws) leave
    // it as exceptions, after a best-effort flush of what was already written.
    void run();
    // Test and fuzzing seam: run() over a socket that is already connected (one end of a
    // local stream pair, say) instead of connecting or listening first. The session takes
    // the descriptor over; everything from "Connection established" on is as in run().
    void runConnected(mirrorlink::TcpSocket& connected);
    // Starts the orderly end: ByeBye when connected, else a last turn of the loop.
    void terminate();

    void startPeerService(uint16_t id);
    void stopPeerService(uint16_t id);
    // Sends one ServicePayload for an own or peer service with the service's access
    // control byte. The caller keeps data within the payload limit.
    void sendServicePayload(uint16_t id, const void* data, size_t length);
    // The application answers (or gives a response to) a service.
    void sendServiceResponse(uint16_t id, uint16_t code);
    // Both of the above drop what they are given, with one debug line per burst, while no
    // connection is established (listening, connecting) or after it is gone.
    // Attaches a sink to a peer service; the session keeps a reference to it for as long as
    // the peer advertises the service unchanged.
    void addSink(uint16_t id, CDBService::Handler* handler);
    // Tells every sink that this session has ended; called by the endpoint once run() has
    // returned or thrown.
    void endSinks();

    // An own service's record if id is ours, a peer service's if it is the peer's, else
    // null. The access control byte takes no part in the lookup.
    const CDBService* findService(uint16_t id, uint8_t accessControl = 0);
    const CDBService* findPeerService(uint16_t id);

    State state() const { return state_; }
    const std::map<uint16_t, CDBService>& peerServices() const { return peerServices_; }
    // Service ids with a request outstanding (for tests and diagnostics).
    std::vector<uint16_t> pendingRequestIds() const;
    // Turns of the loop so far: lets tests see that an idle session does not spin.
    uint64_t loopTurns() const { return loopTurns_; }

    virtual bool isLocalServiceId(uint16_t id) const = 0;
    virtual bool isPeerServiceId(uint16_t id) const = 0;

protected:
    explicit CDBSession(CDBSessionOwner& owner);

    // CDBProtocolHandler
    void handleServicesRequest(CDBVersion peerVersion) override;
    void handleServicesSupported(CDBVersion peerVersion, const std::vector<CDBService>& services,
                                 uint16_t count) override;
    void handleStartService(uint16_t serviceId, CDBVersion requestedVersion) override;
    void handleStopService(uint16_t serviceId) override;
    void handleServicePayload(uint16_t serviceId, uint8_t accessControl, size_t length,
                              const uint8_t* data) override;
    void handleServiceResponse(uint16_t serviceId, uint16_t code) override;
    void handlePing(uint16_t sequence) override;
    void handlePingResponse(uint16_t sequence) override;

    // plat::Timer::Callback: every timer but the ByeBye timer, which the subclasses handle.
    int timerFired(plat::Timer& timer) override;

    virtual void startConnection() = 0;
    virtual bool completeConnection() = 0;
    // False while the socket is not to be watched at all for now (a server pausing after
    // a failed accept); the loop then waits for its timers and control messages only.
    virtual bool watchSocket() const { return true; }

    // One outstanding StartService or StopService, in either direction.
    struct PendingRequest {
        uint16_t id = 0;
        std::unique_ptr<plat::Timer> first;
        std::unique_ptr<plat::Timer> second;
        uint16_t code = 0;
        bool outgoing = false;  // we asked the peer
    };

    void addPendingRequest(uint16_t id, int firstMs, uint16_t code, int secondMs, bool outgoing);
    void dropPendingRequest(uint16_t id);
    int pendingRequestTimerFired(plat::Timer& timer);
    bool supportedVersion(CDBVersion version);
    void rebuildPeerTable(CDBVersion peerVersion, const std::vector<CDBService>& services);
    const CDBService* findLocalService(uint16_t id);
    void connectionEstablished();
    // True (and counted) when a send must be dropped because no peer is connected.
    bool dropWhileNotConnected(const char* what, uint16_t id);
    // Logs how many sends the last burst dropped, if any, and starts counting afresh.
    void reportDroppedSends();
    // The loop of run(); connected: the socket already carries the connection.
    void loop(bool connected);
    void waitAndDispatch(int timeoutMs);

    // Member order matters: the timer manager outlives every timer, and the socket outlives
    // its streams, reader and writer.
    plat::TimerManager timers_;
    CDBSessionOwner& owner_;
    plat::LoggerRef log_;
    mirrorlink::TcpSocket socket_;
    mirrorlink::TcpConnector connector_;
    State state_ = Idle;
    plat::Timer byeByeTimer_;
    mirrorlink::SocketInStream in_;
    mirrorlink::SocketOutStream out_;
    CDBReader reader_;
    CDBWriter writer_;
    std::map<uint16_t, CDBService> peerServices_;
    std::map<uint16_t, CDBService::HandlerRef> sinks_;
    std::map<uint16_t, PendingRequest> pending_;
    plat::Timer pingIntervalTimer_;
    plat::Timer pingResponseTimer_;
    plat::Timer servicesRequestTimer_;
    bool servicesRequestTimedOut_ = false;
    uint16_t expectedPingSequence_ = 0;
    uint64_t loopTurns_ = 0;
    bool established_ = false;  // the connection was made; stays set through Closing
    uint64_t droppedSends_ = 0;
};

}  // namespace zelcdbsdk
