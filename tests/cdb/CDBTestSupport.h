#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "cdb/CDBProtocolHandler.h"
#include "cdb/CDBReader.h"
#include "cdb/CDBWire.h"
#include "cdb/CDBWriter.h"
#include "plat/DString.h"
#include "plat/Logger.h"
#include "plat/RecordingLogger.h"
#include "rdr/BufferedInStream.h"
#include "rdr/MemOutStream.h"

namespace cdbtest {

using Bytes = std::vector<uint8_t>;
using zelcdbsdk::CDBService;
using zelcdbsdk::CDBVersion;
using zelcdbsdk::CDBWriter;

// Behaves like a non-blocking socket under a BufferedInStream: each read hands out as much
// of the bytes fed so far as fits, and nothing when none are pending.
class FeedInStream : public rdr::BufferedInStream {
public:
    explicit FeedInStream(size_t bufferSize = 0) : rdr::BufferedInStream(bufferSize) {}
    void feed(const uint8_t* data, size_t n) { pending_.insert(pending_.end(), data, data + n); }
    void feed(const Bytes& bytes) { feed(bytes.data(), bytes.size()); }
    bool inBuffer(const uint8_t* p) const { return p >= buffer_ && p < buffer_ + bufferSize_; }

protected:
    size_t readData(void* dest, size_t maxBytes) override {
        size_t n = std::min(maxBytes, pending_.size() - taken_);
        if (n > 0) std::memcpy(dest, pending_.data() + taken_, n);
        taken_ += n;
        return n;
    }

private:
    Bytes pending_;
    size_t taken_ = 0;
};

inline std::string hex(const Bytes& bytes) {
    static const char kDigits[] = "0123456789abcdef";
    std::string text;
    for (uint8_t b : bytes) text += {kDigits[b >> 4], kDigits[b & 15]};
    return text;
}

inline Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

inline Bytes written(const std::function<void(CDBWriter&)>& write) {
    rdr::MemOutStream out;
    CDBWriter writer(out, nullptr);
    write(writer);
    return Bytes(out.data(), out.data() + out.length());
}

// Writes every message it is handed back out through a CDBWriter: since the writer's bytes
// are pinned down by the sample table, what the reader delivered compares byte for byte with
// what it was fed.
struct EchoHandler : zelcdbsdk::CDBProtocolHandler {
    rdr::MemOutStream out;
    CDBWriter writer{out, nullptr};
    std::vector<const uint8_t*> payloads;

    Bytes bytes() { return Bytes(out.data(), out.data() + out.length()); }
    void handleServicesRequest(CDBVersion v) override { writer.sendServicesRequest(v); }
    void handleServicesSupported(CDBVersion v, const std::vector<CDBService>& services,
                                 uint16_t count) override {
        EXPECT_EQ(count, services.size());
        writer.sendServicesSupported(v, services.data(), services.size());
    }
    void handleStartService(uint16_t id, CDBVersion v) override { writer.sendStartService(id, v); }
    void handleStopService(uint16_t id) override { writer.sendStopService(id); }
    void handleServicePayload(uint16_t id, uint8_t ac, size_t n, const uint8_t* data) override {
        payloads.push_back(data);
        writer.sendServicePayload(id, ac, data, n);
    }
    void handleServiceResponse(uint16_t id, uint16_t code) override {
        writer.sendServiceResponse(id, code);
    }
    void handlePing(uint16_t sequence) override { writer.sendPing(sequence); }
    void handlePingResponse(uint16_t sequence) override { writer.sendPingResponse(sequence); }
    void handleByeBye() override { writer.sendByeBye(); }
};

using RecordingLogger = zeltest::RecordingLogger;

// Runs the reader until it needs more input; returns how many messages completed.
inline int drain(zelcdbsdk::CDBReader& reader) {
    int completed = 0;
    while (reader.processMessages()) ++completed;
    return completed;
}

inline Bytes pattern(size_t length, uint8_t seed) {
    Bytes data(length);
    for (size_t i = 0; i < length; ++i) data[i] = static_cast<uint8_t>(seed + i * 7);
    return data;
}

// One message of each kind, with names and payload sizes at the limits: the writer must
// produce `hex` (blanks only for reading) and log "Sending " + line; the reader must hand it
// back unchanged and log "Received " + line.
struct Sample {
    std::string hex;
    std::string line;
    std::function<void(CDBWriter&)> write;
};

inline const std::vector<Sample>& samples() {
    static const std::string kLongName(255, 'n');
    static const Bytes kLargest = pattern(zelcdbsdk::kMaxServicePayloadLength, 11);
    static const std::vector<CDBService> kServices = {
        CDBService(0x4001, {2, 3}, 0x81, 0x5a, "ab"),
        CDBService(0x7fff, {255, 254}, 7, 0, kLongName.c_str()),
        CDBService(0x4100, {3, 4}, 0x01, 0x22, "")};  // an empty name ends the message
    static const std::vector<Sample> kSamples = {
        {"b101 0002 0101", "ServicesRequest (endpoint version 1.1)",
         [](CDBWriter& w) {
             w.sendServicesRequest(CDBVersion{1, 1});
         }},
        {"b102 011a 0101 0003 4001 0203 81 5a 02 6162 7fff fffe 07 00 ff" + hex(Bytes(255, 'n')) +
             "4100 0304 01 22 00",
         "ServicesSupported (endpoint version 1.1, 3 services)",
         [](CDBWriter& w) {
             w.sendServicesSupported(CDBVersion{1, 1}, kServices.data(), 3);
         }},
        {"b102 0004 0100 0000", "ServicesSupported (endpoint version 1.0, 0 services)",
         [](CDBWriter& w) {
             w.sendServicesSupported(CDBVersion{1, 0}, nullptr, 0);
         }},
        {"b103 0004 4001 0200", "StartService, service 16385 (0x4001), version 2.0",
         [](CDBWriter& w) {
             w.sendStartService(0x4001, CDBVersion{2, 0});
         }},
        {"b104 0002 0012", "StopService, service 18 (0x0012)",
         [](CDBWriter& w) { w.sendStopService(0x0012); }},
        {"b105 0008 4002 7e dead00beef", "ServicePayload, service 16386 (0x4002), length 5",
         [](CDBWriter& w) { w.sendServicePayload(0x4002, 0x7e, "\xde\xad\0\xbe\xef", 5); }},
        {"b105 0003 0001 02", "ServicePayload, service 1 (0x0001), length 0",
         [](CDBWriter& w) { w.sendServicePayload(1, 2, nullptr, 0); }},
        {"b105 1fa7 4006 00" + hex(kLargest), "ServicePayload, service 16390 (0x4006), length 8100",
         [](CDBWriter& w) { w.sendServicePayload(0x4006, 0, kLargest.data(), kLargest.size()); }},
        {"b106 0002 fffe", "PingResponse, sequence number 65534",
         [](CDBWriter& w) { w.sendPingResponse(0xfffe); }},
        {"b107 0004 4003 020a", "ServiceResponse, service 16387 (0x4003), response 020a",
         [](CDBWriter& w) { w.sendServiceResponse(0x4003, 0x020a); }},
        {"b108 0002 0102", "Ping, sequence number 258", [](CDBWriter& w) { w.sendPing(258); }},
        {"b109 0000", "ByeBye", [](CDBWriter& w) { w.sendByeBye(); }},
    };
    return kSamples;
}

}  // namespace cdbtest
