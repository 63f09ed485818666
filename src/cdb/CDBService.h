#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

namespace zelcdbsdk {

class CDBEndpointHost;

// A CDB or service version, as it travels: one byte each.
struct CDBVersion {
    uint8_t majorNumber;
    uint8_t minorNumber;

    bool operator==(const CDBVersion& other) const {
        return majorNumber == other.majorNumber && minorNumber == other.minorNumber;
    }
    bool operator!=(const CDBVersion& other) const { return !(*this == other); }
};

// One service as advertised in ServicesSupported, and as kept in the local and peer service
// tables. Copying a record copies its name; the handler is never owned.
struct CDBService {
    // How the CDB layer hands a service its events, on the endpoint thread. Implemented by
    // the plain CDB source and sink handlers and by the SBP sink and source.
    //
    // Handlers are reference counted, because a sink handler is held at once by the
    // endpoint's registry, the session's sink map and a queued add-sink message that another
    // thread may still be copying. A new handler holds one reference, its creator's.
    class Handler {
    public:
        // host: the endpoint the handler calls the application through (not owned; may be
        // null for handlers that never call it). serviceId: own or peer service; a source
        // handler learns its id when it is registered.
        Handler(CDBEndpointHost* host, uint16_t serviceId) : host_(host), serviceId_(serviceId) {}
        Handler(const Handler&) = delete;
        Handler& operator=(const Handler&) = delete;

        // The peer asked to start this own service with the given version.
        virtual void startService(CDBVersion version);
        // The peer asked to stop this own service.
        virtual void stopService();
        // A ServiceResponse from the peer for this peer service, or the code of a request
        // that timed out.
        virtual void serviceResponse(uint16_t code);
        // Payload for this service; data is valid only during the call.
        virtual void servicePayload(const uint8_t* data, size_t length) = 0;
        // The session this handler served has ended (the link is gone, or the endpoint is
        // stopping); the session still exists but sends nothing more.
        virtual void sessionEnded();
        virtual ~Handler();

        // Thread-safe.
        void addRef() { refs_.fetch_add(1, std::memory_order_relaxed); }
        void release() {
            if (refs_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
        }

        CDBEndpointHost* host() const { return host_; }
        uint16_t serviceId() const { return serviceId_; }
        void setServiceId(uint16_t serviceId) { serviceId_ = serviceId; }

    private:
        CDBEndpointHost* host_;
        uint16_t serviceId_;
        std::atomic<int> refs_{1};
    };

    // One counted reference to a handler; null allowed. Movable and copyable.
    class HandlerRef {
    public:
        HandlerRef() = default;
        // Takes a further reference to handler.
        explicit HandlerRef(Handler* handler) : handler_(handler) {
            if (handler_) handler_->addRef();
        }
        // Takes over the reference the caller holds (a freshly created handler's).
        static HandlerRef adopt(Handler* handler) {
            HandlerRef ref;
            ref.handler_ = handler;
            return ref;
        }
        HandlerRef(const HandlerRef& other) : HandlerRef(other.handler_) {}
        HandlerRef(HandlerRef&& other) noexcept : handler_(other.handler_) {
            other.handler_ = nullptr;
        }
        HandlerRef& operator=(HandlerRef other) noexcept {
            Handler* old = handler_;
            handler_ = other.handler_;
            other.handler_ = old;
            return *this;
        }
        ~HandlerRef() {
            if (handler_) handler_->release();
        }
        Handler* get() const { return handler_; }
        Handler* operator->() const { return handler_; }
        explicit operator bool() const { return handler_ != nullptr; }

    private:
        Handler* handler_ = nullptr;
    };

    uint16_t id = 0;
    CDBVersion version = {0, 0};
    // Supplied by the application when it registers the service; advertised and stored,
    // never interpreted here.
    uint8_t serviceAttribute = 0;
    // Every ServicePayload of the service must carry this byte.
    uint8_t accessControl = 0;
    // Null in records read from the wire. Not owned: whoever set it holds a reference.
    Handler* handler = nullptr;

    CDBService() = default;
    CDBService(uint16_t serviceId, CDBVersion serviceVersion, uint8_t attribute, uint8_t access,
               const char* serviceName, Handler* serviceHandler = nullptr);

    // Never null; "" when the service has no name.
    const char* name() const { return name_.c_str(); }
    size_t nameLength() const { return name_.size(); }
    void setName(const char* serviceName) { name_.assign(serviceName ? serviceName : ""); }
    void setName(const char* bytes, size_t length) { name_.assign(bytes, length); }

private:
    std::string name_;
};

}  // namespace zelcdbsdk
