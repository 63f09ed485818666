#pragma once

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "cdb/CDBService.h"
#include "cdb/CDBSession.h"
#include "cdb/CDBSessionOwner.h"
#include "messaging/ControlMessageQueue.h"
#include "messaging/ControlMessageQueueUNIX.h"
#include "messaging/Mutex.h"
#include "mirrorlink/CDBUrl.h"
#include "plat/DString.h"
#include "plat/Logger.h"
#include "zelcdbsdk.h"

namespace zelcdbsdk {
namespace ControlMessages {
class Message;
}
}  // namespace zelcdbsdk

// The object behind the application's endpoint handle: one end of a CDB connection, the
// application's callbacks and context, the registry of its own (source) services, and a
// control message queue whose servicing thread is the endpoint thread.
//
// Threads. All protocol work and every application callback happen on the endpoint thread;
// the session, the callback depth counter and the sinks are touched by it alone. Other
// threads reach it by posting control messages (post()). State shared between threads:
//  - the queue's state and messages, guarded by the queue's own mutexes;
//  - the lifecycle: starting, stopping, joining the thread and changing the service
//    registry are serialised by lifecycleMutex_, which is never held while the application
//    is called and never taken on the endpoint thread (which would wait for itself).
struct ZELCDBEndpoint : public plat::Logger,
                        public messaging::ControlMessageQueue::Servicer,
                        public zelcdbsdk::CDBSessionOwner {
public:
    // The ZELCDBEndpointCreate entry: checks the parameters and builds an endpoint, logging
    // the version banner as its first line. *out (when not null) is null on failure. Throws
    // std::bad_alloc when memory runs out; nothing is left behind.
    static ZELCDBError create(ZELCDBEndpoint** out, const ZELCDBEndpointParameters* parameters,
                              uint32_t parametersSize, const ZELCDBEndpointCallbacks* callbacks,
                              uint32_t callbacksSize);

    // Stops a running endpoint (waiting for its thread) and frees it. Refused with
    // IllegalWhileRunning (thrown) on the endpoint's own thread, which cannot delete the
    // object it is running. Throws std::bad_alloc, keeping the endpoint, when the stop
    // cannot be posted.
    static void destroy(ZELCDBEndpoint* endpoint);

    ~ZELCDBEndpoint() override;
    ZELCDBEndpoint(const ZELCDBEndpoint&) = delete;
    ZELCDBEndpoint& operator=(const ZELCDBEndpoint&) = delete;

    // Starts the endpoint thread and returns once it has initialised; Failed, with one log
    // line, when it could not. Throws ErrorException(IllegalWhileRunning) while running.
    ZELCDBError start();
    // Ends the session and waits for the endpoint thread. On the endpoint thread itself it
    // only starts the orderly end. Throws ErrorException(IllegalWhileNotRunning) when not
    // running (joining a thread that ended on its own first).
    void stop();

    // The registration routine of every local source service. Checks the name (at most
    // 255 bytes: InvalidParameter) and the state (IllegalWhileRunning), refuses with Failed
    // and one error line a registration beyond 16383 services or beyond what one
    // ServicesSupported can carry, then assigns the next ID, writes it into record.serviceId,
    // keeps a reference to handler and logs the registration. sbpSource also files the
    // handler under its ID for the SBP source messages. Throws std::bad_alloc; a refused or
    // failed registration consumes no ID.
    ZELCDBError registerSourceService(ZELCDBService& record,
                                      zelcdbsdk::CDBService::Handler* handler, bool sbpSource);

    // The dispatch rule of every control message, from any thread. While running: performed
    // at once on the endpoint thread when its kind allows it (kind 1 outside callbacks),
    // otherwise copied into the queue's storage and queued. Not running: performed at once on
    // the calling thread, any exception swallowed. Throws std::bad_alloc when the queue has
    // to grow for the copy and cannot.
    void post(zelcdbsdk::ControlMessages::Message& message);

    // The running test: the queue's state, read under its mutex.
    bool isRunning() { return queue_.isRunning(); }

    // The current session, on the endpoint thread while one exists; null anywhere else.
    zelcdbsdk::CDBSession* session();
    // The SBP source registered under a local service ID, on the endpoint thread; null if
    // none.
    zelcdbsdk::CDBService::Handler* sbpSource(uint16_t serviceId);

    void* context() const { return context_; }
    // The "CDBEndpoint" facility, written through log() below.
    const plat::LoggerRef& logRef() const { return log_; }

    // Makes the endpoint loop take one more turn. A clock that tests move calls it, so that
    // the loop looks at its timers again.
    void wakeLoop();

    // plat::Logger: formats the line and hands it to logCallback (inside the callback
    // bracket); any thread. A line that cannot be formatted for lack of memory is dropped.
    void log(int level, const char* facility, const char* format, va_list args) override;

    // ControlMessageQueue::Servicer: the endpoint thread's body.
    void run() override;

    // CDBSessionOwner, endpoint thread only.
    const std::vector<zelcdbsdk::CDBService>& localServices() override { return services_; }
    zelcdbsdk::CDBVersion cdbVersion() override { return version_; }
    const char* url() override { return url_.url(); }
    plat::Logger* logger() override { return this; }
    int wakeupDescriptor() override { return queue_.getWakeupDescriptor(); }
    void serviceMessages() override { queue_.serviceMessages(); }
    bool hasUnsignalledMessages() override { return queue_.hasUnsignalledMessages(); }
    bool beginWait() override { return queue_.beginWait(); }
    void endWait() override { queue_.endWait(); }
    void sessionConnected() override;
    void peerServicesChanged(zelcdbsdk::CDBVersion peerVersion,
                             const std::vector<const zelcdbsdk::CDBService*>& services,
                             bool added) override;
    void servicesRequestTimedOut() override;

    // CDBEndpointHost
    ZELCDBEndpoint* endpointHandle() override { return this; }
    void* endpointContext() override { return context_; }
    void enterCallback() override;
    void leaveCallback() override;
    // The session as the SBP sinks and sources use it, on the endpoint thread.
    bool hasSession() override { return session_ != nullptr; }
    void sendServicePayload(uint16_t serviceId, const uint8_t* data, size_t length) override {
        if (session_) session_->sendServicePayload(serviceId, data, length);
    }
    void sendServiceResponse(uint16_t serviceId, uint16_t code) override {
        if (session_) session_->sendServiceResponse(serviceId, code);
    }
    void stopPeerService(uint16_t serviceId) override {
        if (session_) session_->stopPeerService(serviceId);
    }

private:
    ZELCDBEndpoint(int32_t mode, void* context);

    bool onEndpointThread() const;
    void reportStatus(int32_t status, ZELCDBError error);
    ZELCDBError runSession();
    // Tells the sinks and SBP sources of the session that has just ended that it is gone.
    void endServices();

    // Immutable once create() has returned.
    plat::LoggerRef log_;
    ZELCDBEndpointCallbacks callbacks_;
    int32_t mode_;
    void* context_;
    zelcdbsdk::CDBVersion version_ = {0, 0};
    mirrorlink::CDBUrl url_;

    messaging::ControlMessageQueueUNIX queue_;
    std::unique_ptr<messaging::Mutex> lifecycleMutex_;

    // State below is touched by the endpoint thread only.
    std::unique_ptr<zelcdbsdk::CDBSession> session_;
    int32_t callbackDepth_ = 0;
    plat::DString line_;      // the log line being delivered
    bool lineInUse_ = false;  // line_ is being read by the log callback

    // Threads started so far (each one counts itself as it begins to run), and whether the
    // current one has left its session for good. Written by the endpoint thread, read under
    // lifecycleMutex_ by start().
    std::atomic<unsigned> runs_{0};
    std::atomic<bool> ending_{false};

    // State below is changed under lifecycleMutex_ while not running, and read by the
    // endpoint thread while it runs.
    uint32_t sourceCount_ = 0;  // never decremented: IDs are not reused
    size_t advertisedLength_;   // payload bytes of the ServicesSupported that lists them
    std::vector<zelcdbsdk::CDBService> services_;
    std::vector<zelcdbsdk::CDBService::HandlerRef> handlers_;
    std::map<uint16_t, zelcdbsdk::CDBService::HandlerRef> sbpSources_;
};
