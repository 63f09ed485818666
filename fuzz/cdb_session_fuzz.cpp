// Runs a connected CDB session (client or server) against a script taken from the input:
// bytes from the peer, moves of the virtual clock, and the operations the application
// reaches through control messages. Every handler path, the peer table rebuild, the
// refusals and the request timers run; whatever the session writes must stay well-formed
// CDB.
//
// Input layout: byte 0 bit 0 picks the role (0 client, 1 server). Then steps, one op byte
// each (op & 7) with its arguments:
//   0 n bytes...  feed the next n bytes (0: 256) to the session
//   1 t           move the clock on by t x 500 ms
//   2 id          startPeerService       3 id     stopPeerService
//   4 id code     sendServiceResponse    5 id     addSink
//   6 id n        sendServicePayload, n % 32 bytes
//   7             terminate
// An id byte names id 0 when it is 0, else the peer's (bit 6 set) or own service (bit 6
// clear) numbered by its low four bits; a code byte indexes the known response codes and
// reaches one undefined value beyond them.
//
// The session runs on this thread over one end of a local stream pair. Its control queue is
// replaced by a pipe that is always readable, so each turn of its loop performs one step;
// once the script is done the peer's end is closed, which ends the session. A session cannot
// be restarted, so each input gets a new one and a new connection; everything else (the
// listener, the pipe, the buffer that reads the session's output) is made once per process.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "cdb/CDBProtocolHandler.h"
#include "cdb/CDBReader.h"
#include "cdb/CDBServiceHandlers.h"
#include "cdb/CDBSession.h"
#include "cdb/CDBSessionOwner.h"
#include "mirrorlink/TcpSocket.h"
#include "plat/Exception.h"
#include "plat/ManualClock.h"
#include "rdr/BufferedInStream.h"

namespace {

using zelcdbsdk::CDBService;
using zelcdbsdk::CDBSession;
using zelcdbsdk::CDBVersion;

void require(bool condition) {
    if (!condition) std::abort();
}

const uint16_t kCodes[] = {0x0001, 0x0002, 0x0010, 0x0101, 0x0102, 0x0201, 0x0202, 0x0203, 0x0204,
                           0x0205, 0x0206, 0x0207, 0x0208, 0x0209, 0x020a, 0x020b, 0x0300};

// Formats every line, so that the format strings run under the sanitizers, and drops it.
struct DiscardingLogger : plat::Logger {
    void log(int, const char*, const char* format, va_list args) override {
        char line[512];
        std::vsnprintf(line, sizeof line, format, args);
    }
};

// Touches every byte the callbacks are handed.
unsigned gSum;
void touch(const uint8_t* data, uint32_t n) {
    for (uint32_t i = 0; i < n; ++i) gSum += data[i];
}
const ZELCDBSourceServiceCallbacks kSource = {
    [](ZELCDBEndpoint*, void*, uint16_t, void*, uint8_t, uint8_t) {},
    [](ZELCDBEndpoint*, void*, uint16_t, void*) {},
    [](ZELCDBEndpoint*, void*, uint16_t, void*, const uint8_t* d, uint32_t n) { touch(d, n); }};
const ZELCDBSinkCallbacks kSink = {
    [](ZELCDBEndpoint*, void*, uint16_t, void*, const uint8_t* d, uint32_t n) { touch(d, n); },
    [](ZELCDBEndpoint*, void*, uint16_t, void*, uint16_t) {}};

// Reads what the session sends; any malformed message aborts.
struct OutputChecker : zelcdbsdk::CDBProtocolHandler {
    void handleServicesRequest(CDBVersion) override {}
    void handleServicesSupported(CDBVersion, const std::vector<CDBService>& list,
                                 uint16_t count) override {
        require(list.size() == count);
    }
    void handleStartService(uint16_t, CDBVersion) override {}
    void handleStopService(uint16_t) override {}
    void handleServicePayload(uint16_t, uint8_t, size_t, const uint8_t*) override {}
    void handleServiceResponse(uint16_t, uint16_t) override {}
    void handlePing(uint16_t) override {}
    void handlePingResponse(uint16_t) override {}
    void handleByeBye() override {}
};

// Reads the session's output; one lives for the whole run and is restarted on each new
// connection, so that no input pays for a fresh 16 KiB buffer.
class SocketReader : public rdr::BufferedInStream {
public:
    void restart(int fd) {
        ptr_ = end_ = checkpointPtr_ = buffer_;
        checkpointPos_ = 0;
        offset_ = 0;
        fd_ = fd;
    }

protected:
    size_t readData(void* dest, size_t maxBytes) override {
        ssize_t n = ::recv(fd_, dest, maxBytes, MSG_DONTWAIT);
        return n > 0 ? static_cast<size_t>(n) : 0;
    }

private:
    int fd_ = -1;
};

// Always readable: the session services its control messages, i.e. runs one step, per turn.
int wakeupPipe() {
    static int ends[2] = {-1, -1};
    if (ends[0] < 0) require(::pipe(ends) == 0 && ::write(ends[1], "w", 1) == 1);
    return ends[0];
}

class Script : public zelcdbsdk::CDBSessionOwner {
public:
    Script(bool client, const uint8_t* data, size_t size, mirrorlink::TcpSocket& peer,
           SocketReader& fromSession)
        : client_(client), data_(data), size_(size), checker_(output_, fromSession, nullptr) {
        peer_.swap(peer);
        fromSession.restart(peer_.fd());
        uint16_t base = client ? 0x0001 : 0x4001;
        source_ = CDBService::HandlerRef::adopt(
            new zelcdbsdk::CDBSourceHandler(this, nullptr, &kSource, sizeof kSource));
        source_->setServiceId(base);
        services_.emplace_back(base, CDBVersion{2, 3}, 7, 0x5a, "first", source_.get());
        services_.emplace_back(base + 1, CDBVersion{1, 0}, 0, 0, "no handler");
    }
    void attach(CDBSession& session) { session_ = &session; }

    const std::vector<CDBService>& localServices() override { return services_; }
    CDBVersion cdbVersion() override { return {1, 1}; }
    const char* url() override { return "cdb://127.0.0.1:1"; }
    plat::Logger* logger() override { return &logger_; }
    int wakeupDescriptor() override { return wakeupPipe(); }
    void sessionConnected() override {}
    void peerServicesChanged(CDBVersion, const std::vector<const CDBService*>& list,
                             bool) override {
        for (const CDBService* s : list) gSum += static_cast<unsigned>(s->nameLength());
    }
    void servicesRequestTimedOut() override {}
    ZELCDBEndpoint* endpointHandle() override { return nullptr; }
    void* endpointContext() override { return nullptr; }
    void enterCallback() override {}
    void leaveCallback() override {}

    // One step of the script per turn of the session's loop.
    void serviceMessages() override {
        if (!peer_.isOpen()) return;
        // What the session wrote is checked every few steps rather than after each one: an
        // empty read per step was a third of the cost of a step, and a few steps' output
        // fits the socket many times over.
        if (at_ >= size_ || ++steps_ % 8 == 0) drain();
        if (at_ >= size_) {
            peer_.close();
            return;
        }
        CDBSession& s = *session_;
        switch (next() & 7) {
            case 0: {
                size_t n = next();
                if (n == 0) n = 256;
                n = std::min(n, size_ - at_);
                // The session reads every turn, so a few hundred bytes always fit.
                (void)::send(peer_.fd(), data_ + at_, n, MSG_NOSIGNAL | MSG_DONTWAIT);
                at_ += n;
                break;
            }
            case 1:
                clock_->advanceMs(500 * static_cast<int64_t>(next()));
                break;
            case 2:
                s.startPeerService(id(next()));
                break;
            case 3:
                s.stopPeerService(id(next()));
                break;
            case 4: {
                uint16_t service = id(next());
                s.sendServiceResponse(service, kCodes[next() % (sizeof kCodes / sizeof kCodes[0])]);
                break;
            }
            case 5: {
                uint16_t service = id(next());
                CDBService::HandlerRef sink = CDBService::HandlerRef::adopt(
                    new zelcdbsdk::CDBSinkHandler(this, service, nullptr, &kSink, sizeof kSink));
                s.addSink(service, sink.get());
                break;
            }
            case 6: {
                uint16_t service = id(next());
                uint8_t payload[32] = {1, 2, 3};
                s.sendServicePayload(service, payload, next() % 32u);
                break;
            }
            case 7:
                s.terminate();
                break;
        }
    }

    plat::ManualClock* clock_ = nullptr;

private:
    uint8_t next() { return at_ < size_ ? data_[at_++] : 0; }
    uint16_t id(uint8_t b) {
        if (b == 0) return 0;
        bool peer = (b & 0x40) != 0;
        return static_cast<uint16_t>(((peer == client_) ? 0x4001 : 0x0001) + (b & 0x0f));
    }
    void drain() {
        try {
            while (checker_.processMessages()) {
            }
        } catch (const plat::Exception&) {
            std::abort();  // the session wrote something that is not CDB
        }
    }

    bool client_;
    const uint8_t* data_;
    size_t size_;
    size_t at_ = 1;
    unsigned steps_ = 0;
    mirrorlink::TcpSocket peer_;
    DiscardingLogger logger_;
    CDBSession* session_ = nullptr;
    CDBService::HandlerRef source_;
    std::vector<CDBService> services_;
    OutputChecker output_;
    zelcdbsdk::CDBReader checker_;
};

// A connected pair of stream sockets.
void connectedPair(mirrorlink::TcpSocket& sessionEnd, mirrorlink::TcpSocket& peer) {
    static mirrorlink::TcpSocket listener;
    static mirrorlink::SocketAddress address;
    if (!listener.isOpen()) {
        sockaddr_un* name = reinterpret_cast<sockaddr_un*>(&address.storage);
        name->sun_family = AF_UNIX;
        int n = std::snprintf(name->sun_path + 1, sizeof name->sun_path - 1, "cdb-session-fuzz-%d",
                              static_cast<int>(::getpid()));
        address.length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + n);
        require(listener.create(AF_UNIX, SOCK_STREAM) == 0 && listener.bind(address) == 0 &&
                listener.listen(1) == 0);
    }
    require(sessionEnd.create(AF_UNIX, SOCK_STREAM) == 0 && sessionEnd.connect(address) == 0);
    mirrorlink::SocketAddress from;
    require(listener.accept(&peer, &from) == 0);
    require(sessionEnd.setBlocking(false) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    bool client = (data[0] & 1) == 0;
    plat::ManualClock clock;
    plat::ScopedClock useClock(&clock);
    static SocketReader fromSession;
    mirrorlink::TcpSocket sessionEnd;
    mirrorlink::TcpSocket peer;
    connectedPair(sessionEnd, peer);
    Script script(client, data, size, peer, fromSession);
    script.clock_ = &clock;
    std::unique_ptr<CDBSession> session =
        client ? CDBSession::createClient(script) : CDBSession::createServer(script);
    script.attach(*session);
    try {
        session->runConnected(sessionEnd);
    } catch (const plat::Exception&) {
        // Protocol errors, the closed peer and network errors end sessions this way.
    }
    return 0;
}
