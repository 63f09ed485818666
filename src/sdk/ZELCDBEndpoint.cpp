#include "sdk/ZELCDBEndpoint.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <new>

#include "cdb/CDBProtocolError.h"
#include "plat/DString.h"
#include "plat/Exception.h"
#include "rdr/Exceptions.h"
#include "sdk/ControlMessages.h"
#include "sdk/ErrorException.h"
#include "sdk/ErrorFrame.h"
#include "sdk/SdkTable.h"

using zelcdbsdk::CDBService;
using zelcdbsdk::CDBSession;
using zelcdbsdk::ErrorException;
using zelcdbsdk::ControlMessages::Message;

namespace {

// The endpoint whose thread this is, while its run() is under way.
thread_local ZELCDBEndpoint* tThreadEndpoint = nullptr;

constexpr uint32_t kParametersReadSize =
    offsetof(ZELCDBEndpointParameters, versionMinor) + sizeof(uint8_t);
constexpr zelcdbsdk::CDBVersion kSupportedVersion = {1, 1};

constexpr uint32_t kMaxSourceServices = 16383;
constexpr uint16_t kFirstClientServiceId = 0x0001;
constexpr uint16_t kFirstServerServiceId = 0x4001;
constexpr size_t kMaxServiceNameLength = 255;
// ServicesSupported: version and count, then per service its id, version, attribute, access
// control and name length before the name. Its length field has 16 bits.
constexpr size_t kServicesSupportedFixedLength = 4;
constexpr size_t kServiceEntryFixedLength = 7;
constexpr size_t kMaxMessagePayloadLength = 0xFFFF;

// Marks the calling thread as the endpoint's for the scope of run(), and makes the endpoint
// the thread's current logger, so that timer and assertion lines reach logCallback too.
class EndpointThreadScope {
public:
    explicit EndpointThreadScope(ZELCDBEndpoint* endpoint)
        : previous_(tThreadEndpoint), logger_(endpoint) {
        tThreadEndpoint = endpoint;
    }
    ~EndpointThreadScope() { tThreadEndpoint = previous_; }
    EndpointThreadScope(const EndpointThreadScope&) = delete;
    EndpointThreadScope& operator=(const EndpointThreadScope&) = delete;

private:
    ZELCDBEndpoint* previous_;
    plat::ScopedCurrentLogger logger_;
};

// Nothing to perform: its only effect is the wake-up byte that queueing it writes.
class WakeMessage final : public messaging::ControlMessage {
public:
    int action() override { return 0; }
    size_t copySize() const override { return sizeof(WakeMessage); }
    messaging::ControlMessage* copyInto(void* storage) const override {
        return new (storage) WakeMessage;
    }
};

}  // namespace

ZELCDBEndpoint::ZELCDBEndpoint(int32_t mode, void* context)
    : log_{"CDBEndpoint", this},
      callbacks_(),
      mode_(mode),
      context_(context),
      queue_(this),
      lifecycleMutex_(queue_.createMutex()),
      advertisedLength_(kServicesSupportedFixedLength) {
    // The endpoint thread waits only in its session's loop, which says when it does.
    queue_.announceWaits();
}

ZELCDBEndpoint::~ZELCDBEndpoint() {
    try {
        stop();
    } catch (...) {
        // Not running (the usual case here): the stop had nothing to end.
    }
}

ZELCDBError ZELCDBEndpoint::create(ZELCDBEndpoint** out, const ZELCDBEndpointParameters* parameters,
                                   uint32_t parametersSize,
                                   const ZELCDBEndpointCallbacks* callbacks,
                                   uint32_t callbacksSize) {
    if (out != nullptr) *out = nullptr;
    if (out == nullptr || parameters == nullptr || parametersSize < kParametersReadSize ||
        (parameters->mode != ZELCDBEndpointModeClient &&
         parameters->mode != ZELCDBEndpointModeServer)) {
        return ZELCDBErrorInvalidParameter;
    }
    std::unique_ptr<ZELCDBEndpoint> endpoint(
        new (std::nothrow) ZELCDBEndpoint(parameters->mode, parameters->context));
    if (!endpoint) return ZELCDBErrorOutOfMemory;
    zelcdbsdk::CDBVersion requested = {parameters->versionMajor, parameters->versionMinor};
    if (requested != kSupportedVersion) return ZELCDBErrorUnsupportedVersion;
    if (!endpoint->url_.parse(parameters->url)) return ZELCDBErrorInvalidParameter;
    endpoint->version_ = requested;
    if (callbacks != nullptr) {
        // Whole entries only: a size that ends inside an entry must not leave half a pointer.
        size_t copied = std::min<size_t>(callbacksSize, sizeof endpoint->callbacks_);
        copied -= copied % sizeof callbacks->logCallback;
        std::memcpy(&endpoint->callbacks_, callbacks, copied);
    }
    *out = endpoint.release();
    (*out)->log_.info("ZEL CDB and SBP SDK, version: %d.%d.%d.%d",
                      static_cast<int>(zelcdbsdk::kSdkVersionMajor),
                      static_cast<int>(zelcdbsdk::kSdkVersionMinor),
                      static_cast<int>(zelcdbsdk::kSdkVersionPatch),
                      static_cast<int>(zelcdbsdk::kSdkVersionBuild));
    return ZELCDBErrorNone;
}

void ZELCDBEndpoint::destroy(ZELCDBEndpoint* endpoint) {
    // Deleting the object whose thread is calling would pull the endpoint from under its own
    // loop: refused rather than left to crash.
    if (endpoint->onEndpointThread()) throw ErrorException(ZELCDBErrorIllegalWhileRunning);
    try {
        endpoint->stop();
    } catch (const ErrorException&) {
        // Not running: nothing to stop.
    }
    delete endpoint;
}

bool ZELCDBEndpoint::onEndpointThread() const {
    return tThreadEndpoint == this;
}

// ---- Start and stop -----------------------------------------------------------------------

ZELCDBError ZELCDBEndpoint::start() {
    if (onEndpointThread()) throw ErrorException(ZELCDBErrorIllegalWhileRunning);
    bool started;
    {
        messaging::MutexLock lock(*lifecycleMutex_);
        // An application that restarts when it sees status 3 must not have to retry: a
        // thread that has left its session for good is waited for instead of refused.
        if (queue_.isRunning() && !ending_.load()) {
            throw ErrorException(ZELCDBErrorIllegalWhileRunning);
        }
        queue_.join();
        ending_.store(false);
        unsigned runsBefore = runs_.load();
        if (!queue_.start()) throw ErrorException(ZELCDBErrorIllegalWhileRunning);
        // Returning only once the thread has initialised lets a running-only call made
        // right after Start be accepted. A thread that initialised may already have ended
        // (its run() counted itself); one that did not never runs.
        queue_.waitForStartUp();
        started = queue_.isRunning() || runs_.load() != runsBefore;
        if (!started) queue_.join();
    }
    if (!started) {
        log_.error("Failed to initialise the endpoint thread");
        return ZELCDBErrorFailed;
    }
    return ZELCDBErrorNone;
}

void ZELCDBEndpoint::stop() {
    zelcdbsdk::ControlMessages::StopMessage message(this);
    if (onEndpointThread()) {
        // The endpoint thread cannot wait for itself: it only starts the orderly end, the
        // thread ends once the callback returns, and the next start, stop or destroy joins it.
        post(message);
        return;
    }
    messaging::MutexLock lock(*lifecycleMutex_);
    if (!queue_.isRunning()) {
        queue_.join();  // a thread that ended on its own
        throw ErrorException(ZELCDBErrorIllegalWhileNotRunning);
    }
    post(message);
    queue_.join();
}

// ---- Posting ------------------------------------------------------------------------------

void ZELCDBEndpoint::post(Message& message) {
    if (queue_.isRunning()) {
        bool atOnce =
            message.kind() != zelcdbsdk::ControlMessages::kDispatchQueued && onEndpointThread() &&
            (message.kind() != zelcdbsdk::ControlMessages::kDispatchDirect || callbackDepth_ < 1);
        if (atOnce) {
            message.action();
            return;
        }
        // A call from inside a callback needs no wake-up: this thread's loop looks at the
        // queue before it next waits (and what is left when the thread ends is performed
        // then).
        if (onEndpointThread()) {
            queue_.postCopyFromServicer(message);
        } else {
            queue_.postCopy(message);
        }
        return;
    }
    try {
        message.action();
    } catch (...) {
        // Without a running endpoint there is nobody to report to.
    }
}

void ZELCDBEndpoint::wakeLoop() {
    WakeMessage message;
    queue_.postCopy(message);
}

CDBSession* ZELCDBEndpoint::session() {
    return onEndpointThread() ? session_.get() : nullptr;
}

CDBService::Handler* ZELCDBEndpoint::sbpSource(uint16_t serviceId) {
    if (!onEndpointThread()) return nullptr;
    auto it = sbpSources_.find(serviceId);
    return it == sbpSources_.end() ? nullptr : it->second.get();
}

// ---- Registration -------------------------------------------------------------------------

ZELCDBError ZELCDBEndpoint::registerSourceService(ZELCDBService& record,
                                                  CDBService::Handler* handler, bool sbpSource) {
    const char* name = record.name;
    if (name == nullptr) return ZELCDBErrorInvalidParameter;
    size_t nameLength = strnlen(name, kMaxServiceNameLength + 1);
    if (nameLength > kMaxServiceNameLength) return ZELCDBErrorInvalidParameter;
    if (onEndpointThread()) return ZELCDBErrorIllegalWhileRunning;

    enum { kAdded, kTooMany, kTooLong } outcome;
    uint16_t id = 0;
    size_t wouldNeed = 0;
    {
        messaging::MutexLock lock(*lifecycleMutex_);
        if (queue_.isRunning()) return ZELCDBErrorIllegalWhileRunning;
        wouldNeed = advertisedLength_ + kServiceEntryFixedLength + nameLength;
        if (sourceCount_ >= kMaxSourceServices) {
            outcome = kTooMany;
        } else if (wouldNeed > kMaxMessagePayloadLength) {
            // Refused here, before an ID is consumed: the session could not advertise it.
            outcome = kTooLong;
        } else {
            uint16_t base =
                mode_ == ZELCDBEndpointModeClient ? kFirstClientServiceId : kFirstServerServiceId;
            id = static_cast<uint16_t>(base + sourceCount_);
            CDBService entry(id, {record.versionMajor, record.versionMinor},
                             static_cast<uint8_t>(record.serviceAttribute),
                             static_cast<uint8_t>(record.accessControl), name, handler);
            // Every allocation happens before the first change, so a failure changes nothing.
            services_.reserve(services_.size() + 1);
            handlers_.reserve(handlers_.size() + 1);
            if (sbpSource) sbpSources_[id] = CDBService::HandlerRef(handler);
            handler->setServiceId(id);
            services_.push_back(std::move(entry));
            handlers_.emplace_back(handler);
            ++sourceCount_;
            advertisedLength_ = wouldNeed;
            record.serviceId = id;
            outcome = kAdded;
        }
    }
    switch (outcome) {
        case kTooMany:
            log_.error("Too many source services! Maximum is %zu",
                       static_cast<size_t>(kMaxSourceServices));
            return ZELCDBErrorFailed;
        case kTooLong:
            log_.error(
                "Failed to add source service '%s' - ServicesSupported would take %zu bytes, "
                "maximum is %zu",
                name, wouldNeed, kMaxMessagePayloadLength);
            return ZELCDBErrorFailed;
        case kAdded:
            break;
    }
    log_.info("Added source service '%s', version %d.%d with service ID %d (0x%04x)", name,
              record.versionMajor, record.versionMinor, id, id);
    return ZELCDBErrorNone;
}

// ---- The endpoint thread ------------------------------------------------------------------

void ZELCDBEndpoint::run() {
    EndpointThreadScope scope(this);
    runs_.fetch_add(1);
    ZELCDBError result = runSession();
    ending_.store(true);
    reportStatus(ZELCDBStatusStopping, result);
}

ZELCDBError ZELCDBEndpoint::runSession() {
    using zelcdbsdk::errorNameOrUnknown;
    using zelcdbsdk::logSafely;
    ZELCDBError result = ZELCDBErrorNone;
    try {
        reportStatus(ZELCDBStatusStarted, ZELCDBErrorNone);
        session_ = mode_ == ZELCDBEndpointModeClient ? CDBSession::createClient(*this)
                                                     : CDBSession::createServer(*this);
        session_->run();
    } catch (const ErrorException& e) {
        logSafely(log_, "Operation failed with CDB SDK error %d (%s)", e.code(),
                  errorNameOrUnknown(e.code()));
        result = e.code();
    } catch (const zelcdbsdk::CDBProtocolError& e) {
        logSafely(log_, "Caught exception: %s", e.str());
        result = ZELCDBErrorInvalidProtocol;
    } catch (const rdr::EndOfStream& e) {
        logSafely(log_, "Caught exception: %s", e.str());
        result = ZELCDBErrorNetworkError;
    } catch (const rdr::OutStreamFull& e) {
        logSafely(log_, "Caught exception: %s", e.str());
        result = ZELCDBErrorNetworkError;
    } catch (const plat::SystemException& e) {
        logSafely(log_, "Caught exception: %s", e.str());
        result = ZELCDBErrorNetworkError;
    } catch (const plat::Exception& e) {
        logSafely(log_, "Caught exception: %s", e.str());
        result = ZELCDBErrorFailed;
    } catch (const std::exception& e) {
        logSafely(log_, "Caught std::exception: %s", e.what());
        result = ZELCDBErrorFailed;
    } catch (...) {
        logSafely(log_, "Caught exception of unknown type");
        result = ZELCDBErrorFailed;
    }
    if (session_) endServices();
    session_.reset();
    return result;
}

void ZELCDBEndpoint::endServices() {
    // Sources outlive the session, and their requests ran on its timers: each one is told
    // the link is gone so that the next peer starts it from a clean state.
    try {
        session_->endSinks();
        for (auto& source : sbpSources_) source.second->sessionEnded();
    } catch (const std::exception& e) {
        zelcdbsdk::logSafely(log_, "Caught std::exception: %s", e.what());
    }
}

// ---- Calling the application ----------------------------------------------------------------

void ZELCDBEndpoint::enterCallback() {
    if (onEndpointThread()) ++callbackDepth_;
}

void ZELCDBEndpoint::leaveCallback() {
    if (onEndpointThread()) --callbackDepth_;
}

void ZELCDBEndpoint::reportStatus(int32_t status, ZELCDBError error) {
    auto callback = callbacks_.statusCallback;
    if (!callback) return;
    callApplication([&] { callback(this, context_, status, error); });
}

void ZELCDBEndpoint::sessionConnected() {
    reportStatus(ZELCDBStatusConnected, ZELCDBErrorNone);
}

void ZELCDBEndpoint::peerServicesChanged(zelcdbsdk::CDBVersion peerVersion,
                                         const std::vector<const CDBService*>& services,
                                         bool added) {
    auto callback =
        added ? callbacks_.peerServicesAddedCallback : callbacks_.peerServicesRemovedCallback;
    if (!callback) return;
    // Built for the call only; the names point into the session's records.
    std::vector<ZELCDBService> records(services.size());
    for (size_t i = 0; i < services.size(); ++i) {
        const CDBService& service = *services[i];
        records[i].serviceId = service.id;
        records[i].name = service.name();
        records[i].versionMajor = service.version.majorNumber;
        records[i].versionMinor = service.version.minorNumber;
        records[i].serviceAttribute = service.serviceAttribute;
        records[i].accessControl = service.accessControl;
    }
    callApplication([&] {
        callback(this, context_, peerVersion.majorNumber, peerVersion.minorNumber,
                 records.empty() ? nullptr : records.data(),
                 static_cast<uint32_t>(sizeof(ZELCDBService)),
                 static_cast<uint32_t>(records.size()));
    });
}

void ZELCDBEndpoint::servicesRequestTimedOut() {
    auto callback = callbacks_.servicesRequestTimeoutCallback;
    if (!callback) return;
    callApplication([&] { callback(this, context_); });
}

void ZELCDBEndpoint::log(int level, const char* facility, const char* format, va_list args) {
    auto callback = callbacks_.logCallback;
    if (!callback) return;
    // The endpoint thread formats into a buffer it keeps, so that a line per message does
    // not cost an allocation per message; a line logged from inside the log callback, while
    // that buffer is being read, gets one of its own.
    bool endpointThread = onEndpointThread();
    bool kept = endpointThread && !lineInUse_;
    plat::DString own;
    plat::DString& text = kept ? line_ : own;
    try {
        text.formatV(format, args);
    } catch (const std::bad_alloc&) {
        return;  // a lost line is better than a failed call
    }
    if (!endpointThread) {
        // No depth to count off the endpoint thread, and nothing here touches the endpoint
        // once the application returns (it may have destroyed it from the callback).
        callback(this, context_, facility, level, text.c_str());
        return;
    }
    struct InUse {
        bool& flag;
        bool was;
        ~InUse() { flag = was; }
    } inUse{lineInUse_, lineInUse_};
    lineInUse_ = true;
    callApplication([&] { callback(this, context_, facility, level, text.c_str()); });
}
