#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace zelcdbsdk {

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
    // How the CDB layer hands a service its events. Implemented by the plain CDB source and
    // sink handlers and by the SBP sink and source.
    class Handler {
    public:
        virtual ~Handler() = 0;
    };

    uint16_t id = 0;
    CDBVersion version = {0, 0};
    // Supplied by the application when it registers the service; advertised and stored,
    // never interpreted here.
    uint8_t serviceAttribute = 0;
    // Every ServicePayload of the service must carry this byte.
    uint8_t accessControl = 0;
    // Null in records read from the wire.
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
