#include "cdb/CDBWriter.h"

#include <cstdint>

#include "cdb/CDBWire.h"

namespace zelcdbsdk {

namespace {

constexpr size_t kMaxPayloadLength = 0xFFFF;
constexpr size_t kServiceEntryFixedLength = 7;

}  // namespace

CDBWriter::CDBWriter(rdr::OutStream& out, plat::Logger* logger)
    : out_(out), log_{"CDBWriter", logger} {}

void CDBWriter::checkLength(size_t payloadLength) {
    if (payloadLength > kMaxPayloadLength) throw MessageTooLong(payloadLength);
}

void CDBWriter::writeHeader(uint16_t type, size_t payloadLength) {
    out_.writeU16(type);
    out_.writeU16(static_cast<uint16_t>(payloadLength));
}

void CDBWriter::sendServicesRequest(CDBVersion version) {
    log_.debug("Sending ServicesRequest (endpoint version %d.%d)", version.majorNumber,
               version.minorNumber);
    writeHeader(kCDBServicesRequest, 2);
    out_.writeU8(version.majorNumber);
    out_.writeU8(version.minorNumber);
}

void CDBWriter::sendServicesSupported(CDBVersion version, const CDBService* services,
                                      size_t count) {
    size_t length = 4;
    for (size_t i = 0; i < count; ++i)
        length += kServiceEntryFixedLength + services[i].nameLength();
    checkLength(length);
    log_.debug("Sending ServicesSupported (endpoint version %d.%d, %zu services)",
               version.majorNumber, version.minorNumber, count);
    writeHeader(kCDBServicesSupported, length);
    out_.writeU8(version.majorNumber);
    out_.writeU8(version.minorNumber);
    out_.writeU16(static_cast<uint16_t>(count));
    for (size_t i = 0; i < count; ++i) {
        const CDBService& service = services[i];
        out_.writeU16(service.id);
        out_.writeU8(service.version.majorNumber);
        out_.writeU8(service.version.minorNumber);
        out_.writeU8(service.serviceAttribute);
        out_.writeU8(service.accessControl);
        out_.writeU8(static_cast<uint8_t>(service.nameLength()));
        out_.writeBytes(service.name(), service.nameLength());
    }
}

void CDBWriter::sendStartService(uint16_t serviceId, CDBVersion version) {
    log_.debug("Sending StartService, service %d (0x%04x), version %d.%d", serviceId, serviceId,
               version.majorNumber, version.minorNumber);
    writeHeader(kCDBStartService, 4);
    out_.writeU16(serviceId);
    out_.writeU8(version.majorNumber);
    out_.writeU8(version.minorNumber);
}

void CDBWriter::sendStopService(uint16_t serviceId) {
    log_.debug("Sending StopService, service %d (0x%04x)", serviceId, serviceId);
    writeHeader(kCDBStopService, 2);
    out_.writeU16(serviceId);
}

void CDBWriter::sendServicePayload(uint16_t serviceId, uint8_t accessControl, const void* data,
                                   size_t length) {
    checkLength(length <= SIZE_MAX - 3 ? 3 + length : SIZE_MAX);
    log_.debug("Sending ServicePayload, service %d (0x%04x), length %d", serviceId, serviceId,
               static_cast<int>(length));
    writeHeader(kCDBServicePayload, 3 + length);
    out_.writeU16(serviceId);
    out_.writeU8(accessControl);
    out_.writeBytes(data, length);
}

void CDBWriter::sendPingResponse(uint16_t sequence) {
    log_.debug("Sending PingResponse, sequence number %hu", sequence);
    writeHeader(kCDBPingResponse, 2);
    out_.writeU16(sequence);
}

void CDBWriter::sendServiceResponse(uint16_t serviceId, uint16_t code) {
    log_.debug("Sending ServiceResponse, service %d (0x%04x), response %04x", serviceId, serviceId,
               code);
    writeHeader(kCDBServiceResponse, 4);
    out_.writeU16(serviceId);
    out_.writeU16(code);
}

void CDBWriter::sendPing(uint16_t sequence) {
    log_.debug("Sending Ping, sequence number %hu", sequence);
    writeHeader(kCDBPing, 2);
    out_.writeU16(sequence);
}

void CDBWriter::sendByeBye() {
    log_.debug("Sending ByeBye");
    writeHeader(kCDBByeBye, 0);
}

}  // namespace zelcdbsdk
