#pragma once

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "cdb/CDBProtocolHandler.h"
#include "cdb/CDBReader.h"
#include "plat/DString.h"
#include "plat/Logger.h"
#include "rdr/BufferedInStream.h"

namespace cdbtest {

using Bytes = std::vector<uint8_t>;

// Behaves like a non-blocking socket under a BufferedInStream: each read hands out as much
// of the bytes fed so far as fits, and nothing when none are pending.
class FeedInStream : public rdr::BufferedInStream {
public:
    explicit FeedInStream(size_t bufferSize = 0) : rdr::BufferedInStream(bufferSize) {}

    void feed(const uint8_t* data, size_t length) {
        pending_.insert(pending_.end(), data, data + length);
    }
    void feed(const Bytes& bytes) { feed(bytes.data(), bytes.size()); }
    size_t pending() const { return pending_.size() - taken_; }
    bool inBuffer(const uint8_t* p) const { return p >= buffer_ && p < buffer_ + bufferSize_; }

protected:
    size_t readData(void* dest, size_t maxBytes) override {
        size_t n = std::min(maxBytes, pending());
        if (n > 0) std::memcpy(dest, pending_.data() + taken_, n);
        taken_ += n;
        if (taken_ == pending_.size()) {
            pending_.clear();
            taken_ = 0;
        }
        return n;
    }

private:
    Bytes pending_;
    size_t taken_ = 0;
};

inline std::string hex(const uint8_t* data, size_t length) {
    static const char kDigits[] = "0123456789abcdef";
    std::string text(2 * length, '0');
    for (size_t i = 0; i < length; ++i) {
        text[2 * i] = kDigits[data[i] >> 4];
        text[2 * i + 1] = kDigits[data[i] & 15];
    }
    return text;
}

// One line of text per handled message, so that sequences of messages compare as strings.
class RecordingHandler : public zelcdbsdk::CDBProtocolHandler {
public:
    std::vector<std::string> events;
    std::vector<const uint8_t*> payloadPointers;

    void handleServicesRequest(zelcdbsdk::CDBVersion v) override {
        add("ServicesRequest %d.%d", v.majorNumber, v.minorNumber);
    }
    void handleServicesSupported(zelcdbsdk::CDBVersion v,
                                 const std::vector<zelcdbsdk::CDBService>& services,
                                 uint16_t count) override {
        std::string text =
            format("ServicesSupported %d.%d count %u:", v.majorNumber, v.minorNumber, count);
        for (const zelcdbsdk::CDBService& s : services) {
            text += format(" [%u %d.%d a%u c%u '%s'%s]", s.id, s.version.majorNumber,
                           s.version.minorNumber, s.serviceAttribute, s.accessControl, s.name(),
                           s.handler ? " handler" : "");
        }
        events.push_back(text);
    }
    void handleStartService(uint16_t id, zelcdbsdk::CDBVersion v) override {
        add("StartService %u %d.%d", id, v.majorNumber, v.minorNumber);
    }
    void handleStopService(uint16_t id) override { add("StopService %u", id); }
    void handleServicePayload(uint16_t id, uint8_t accessControl, size_t length,
                              const uint8_t* data) override {
        payloadPointers.push_back(data);
        events.push_back(format("ServicePayload %u c%u len %zu ", id, accessControl, length) +
                         hex(data, length));
    }
    void handleServiceResponse(uint16_t id, uint16_t code) override {
        add("ServiceResponse %u %04x", id, code);
    }
    void handlePing(uint16_t sequence) override { add("Ping %u", sequence); }
    void handlePingResponse(uint16_t sequence) override { add("PingResponse %u", sequence); }
    void handleByeBye() override { add("ByeBye"); }

    static std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2))) {
        va_list args;
        va_start(args, fmt);
        plat::DString text;
        text.formatV(fmt, args);
        va_end(args);
        return text.c_str();
    }

private:
    void add(const char* fmt, ...) __attribute__((format(printf, 2, 3))) {
        va_list args;
        va_start(args, fmt);
        plat::DString text;
        text.formatV(fmt, args);
        va_end(args);
        events.push_back(text.c_str());
    }
};

struct LogLine {
    int level;
    std::string facility;
    std::string text;
};

class RecordingLogger : public plat::Logger {
public:
    std::vector<LogLine> lines;
    void log(int level, const char* facility, const char* format, va_list args) override {
        plat::DString text;
        text.formatV(format, args);
        lines.push_back({level, facility, text.c_str()});
    }
};

// Runs the reader until it needs more input; returns how many messages completed.
inline int drain(zelcdbsdk::CDBReader& reader) {
    int completed = 0;
    while (reader.processMessages()) ++completed;
    return completed;
}

}  // namespace cdbtest

#include "cdb/CDBWire.h"
#include "cdb/CDBWriter.h"
#include "rdr/MemOutStream.h"

namespace cdbtest {

// One message of each kind (and the payload sizes that matter), written by CDBWriter, with
// the event a RecordingHandler makes of it.
struct Sample {
    std::string name;
    Bytes bytes;
    std::string event;
};

inline Bytes patternBytes(size_t length, uint8_t seed) {
    Bytes data(length);
    for (size_t i = 0; i < length; ++i) data[i] = static_cast<uint8_t>(seed + i * 7);
    return data;
}

template <typename Write>
Bytes written(Write write) {
    rdr::MemOutStream out;
    zelcdbsdk::CDBWriter writer(out, nullptr);
    write(writer);
    return Bytes(out.data(), out.data() + out.length());
}

inline std::vector<Sample> sampleMessages() {
    using zelcdbsdk::CDBService;
    using zelcdbsdk::CDBVersion;
    using zelcdbsdk::CDBWriter;
    std::vector<Sample> samples;
    samples.push_back({"ServicesRequest", written([](CDBWriter& w) {
                           w.sendServicesRequest({1, 1});
                       }),
                       "ServicesRequest 1.1"});
    std::vector<CDBService> services = {
        CDBService(0x4001, {2, 3}, 0x81, 0x5a, "TEST:sbp"), CDBService(0x4002, {1, 0}, 0, 0xff, ""),
        CDBService(0x7fff, {255, 254}, 7, 0, std::string(255, 'n').c_str())};
    samples.push_back(
        {"ServicesSupported", written([&](CDBWriter& w) {
             w.sendServicesSupported({1, 1}, services.data(), services.size());
         }),
         "ServicesSupported 1.1 count 3: [16385 2.3 a129 c90 'TEST:sbp'] [16386 1.0 a0 c255 '']"
         " [32767 255.254 a7 c0 '" +
             std::string(255, 'n') + "']"});
    samples.push_back({"ServicesSupported empty", written([](CDBWriter& w) {
                           w.sendServicesSupported({1, 0}, nullptr, 0);
                       }),
                       "ServicesSupported 1.0 count 0:"});
    samples.push_back({"StartService", written([](CDBWriter& w) {
                           w.sendStartService(0x4001, {2, 9});
                       }),
                       "StartService 16385 2.9"});
    samples.push_back({"StopService", written([](CDBWriter& w) { w.sendStopService(0x3fff); }),
                       "StopService 16383"});
    Bytes small = patternBytes(40, 3);
    samples.push_back({"ServicePayload", written([&](CDBWriter& w) {
                           w.sendServicePayload(0x4005, 0x33, small.data(), small.size());
                       }),
                       "ServicePayload 16389 c51 len 40 " + hex(small.data(), small.size())});
    samples.push_back({"ServicePayload empty",
                       written([](CDBWriter& w) { w.sendServicePayload(1, 2, nullptr, 0); }),
                       "ServicePayload 1 c2 len 0 "});
    Bytes largest = patternBytes(zelcdbsdk::kMaxServicePayloadLength, 11);
    samples.push_back({"ServicePayload largest", written([&](CDBWriter& w) {
                           w.sendServicePayload(0x4006, 0, largest.data(), largest.size());
                       }),
                       "ServicePayload 16390 c0 len 8100 " + hex(largest.data(), largest.size())});
    samples.push_back({"PingResponse", written([](CDBWriter& w) { w.sendPingResponse(65535); }),
                       "PingResponse 65535"});
    samples.push_back({"ServiceResponse",
                       written([](CDBWriter& w) { w.sendServiceResponse(0, 0x0209); }),
                       "ServiceResponse 0 0209"});
    samples.push_back({"Ping", written([](CDBWriter& w) { w.sendPing(0); }), "Ping 0"});
    samples.push_back({"ByeBye", written([](CDBWriter& w) { w.sendByeBye(); }), "ByeBye"});
    return samples;
}

inline Bytes concatenate(const std::vector<Sample>& samples) {
    Bytes all;
    for (const Sample& s : samples) all.insert(all.end(), s.bytes.begin(), s.bytes.end());
    return all;
}

}  // namespace cdbtest
