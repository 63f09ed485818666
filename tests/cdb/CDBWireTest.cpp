// CDB framing: what the writer puts on the wire and what the reader makes of it, fed in any
// slicing, malformed, or with allocations failing.
#include <gtest/gtest.h>

#include <random>

#include "FailingAllocator.h"
#include "cdb/CDBProtocolError.h"
#include "cdb/CDBTestSupport.h"
#include "cdb/CDBWire.h"
#include "rdr/Exceptions.h"

namespace {

using namespace cdbtest;

Bytes header(uint16_t type, uint16_t length) {
    return {uint8_t(type >> 8), uint8_t(type), uint8_t(length >> 8), uint8_t(length)};
}
Bytes pattern(size_t length, uint8_t seed) {
    Bytes data(length);
    for (size_t i = 0; i < length; ++i) data[i] = static_cast<uint8_t>(seed + i * 7);
    return data;
}
const Bytes kPing5 = {0xb1, 0x08, 0x00, 0x02, 0x00, 0x05};

// Writes every message it is handed back out: since the writer's bytes are pinned down by the
// samples, what the reader delivered compares byte for byte with what it was fed.
struct EchoHandler : zelcdbsdk::CDBProtocolHandler {
    rdr::MemOutStream out;
    CDBWriter writer{out, nullptr};
    std::vector<const uint8_t*> payloads;
    int throwsLeft = 0;  // payloads throw plat::Exception, starts rdr::BlockException

    Bytes bytes() { return Bytes(out.data(), out.data() + out.length()); }
    void handleServicesRequest(CDBVersion v) override { writer.sendServicesRequest(v); }
    void handleServicesSupported(CDBVersion v, const std::vector<CDBService>& services,
                                 uint16_t count) override {
        EXPECT_EQ(count, services.size());
        writer.sendServicesSupported(v, services.data(), services.size());
    }
    void handleStartService(uint16_t id, CDBVersion v) override {
        writer.sendStartService(id, v);
        if (throwsLeft-- > 0) throw rdr::BlockException();
    }
    void handleStopService(uint16_t id) override { writer.sendStopService(id); }
    void handleServicePayload(uint16_t id, uint8_t ac, size_t n, const uint8_t* data) override {
        payloads.push_back(data);
        writer.sendServicePayload(id, ac, data, n);
        if (throwsLeft-- > 0) throw plat::Exception("handler failed");
    }
    void handleServiceResponse(uint16_t id, uint16_t code) override {
        writer.sendServiceResponse(id, code);
    }
    void handlePing(uint16_t sequence) override { writer.sendPing(sequence); }
    void handlePingResponse(uint16_t sequence) override { writer.sendPingResponse(sequence); }
    void handleByeBye() override { writer.sendByeBye(); }
};

struct Reader {
    explicit Reader(size_t bufferSize = 0) : in(bufferSize), reader(handler, in, &logger) {}
    // Runs the reader until it needs more input; returns how many messages completed.
    int drain() {
        int completed = 0;
        while (reader.processMessages()) ++completed;
        return completed;
    }
    zeltest::RecordingLogger logger;
    EchoHandler handler;
    FeedInStream in;
    zelcdbsdk::CDBReader reader;
};

// One message of each kind, with names and payload sizes at the limits: the writer must
// produce `hex` (blanks only for reading) and log "Sending " + line; the reader must hand it
// back unchanged and log "Received " + line.
struct Sample {
    std::string hex, line;
    std::function<void(CDBWriter&)> write;
};
const std::vector<Sample>& samples() {
    static const std::string kLongName(255, 'n');
    static const Bytes kLargest = pattern(zelcdbsdk::kMaxServicePayloadLength, 11);
    static const std::vector<CDBService> kServices = {
        CDBService(0x4001, {2, 3}, 0x81, 0x5a, "ab"),
        CDBService(0x7fff, {255, 254}, 7, 0, kLongName.c_str()),
        CDBService(0x4100, {3, 4}, 0x01, 0x22, "")};  // an empty name ends the message
    static const std::vector<Sample> kSamples = {
        {"b101 0002 0101", "ServicesRequest (endpoint version 1.1)",
         [](CDBWriter& w) {
             w.sendServicesRequest({1, 1});
         }},
        {"b102 011a 0101 0003 4001 0203 81 5a 02 6162 7fff fffe 07 00 ff" +
             zeltest::hex(kLongName.data(), 255, "") + "4100 0304 01 22 00",
         "ServicesSupported (endpoint version 1.1, 3 services)",
         [](CDBWriter& w) {
             w.sendServicesSupported({1, 1}, kServices.data(), 3);
         }},
        {"b102 0004 0100 0000", "ServicesSupported (endpoint version 1.0, 0 services)",
         [](CDBWriter& w) {
             w.sendServicesSupported({1, 0}, nullptr, 0);
         }},
        {"b103 0004 4001 0200", "StartService, service 16385 (0x4001), version 2.0",
         [](CDBWriter& w) {
             w.sendStartService(0x4001, {2, 0});
         }},
        {"b104 0002 0012", "StopService, service 18 (0x0012)",
         [](CDBWriter& w) { w.sendStopService(0x0012); }},
        {"b105 0008 4002 7e dead00beef", "ServicePayload, service 16386 (0x4002), length 5",
         [](CDBWriter& w) { w.sendServicePayload(0x4002, 0x7e, "\xde\xad\0\xbe\xef", 5); }},
        {"b105 0003 0001 02", "ServicePayload, service 1 (0x0001), length 0",
         [](CDBWriter& w) { w.sendServicePayload(1, 2, nullptr, 0); }},
        {"b105 1fa7 4006 00" + zeltest::hex(kLargest, ""),
         "ServicePayload, service 16390 (0x4006), length 8100",
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

Bytes allSamples(std::vector<size_t>* ends = nullptr) {
    Bytes all;
    for (const Sample& sample : samples()) {
        all = all + written(sample.write);
        if (ends) ends->push_back(all.size());
    }
    return all;
}

std::string logged(const zeltest::RecordingLogger& logger) {
    std::string text;
    for (const auto& l : logger.lines)
        text += format("%s/%d %s\n", l.facility.c_str(), l.level, l.text.c_str());
    return text;
}

TEST(CDBWire, EachMessageIsWrittenWithItsDebugLine) {
    for (const Sample& sample : samples()) {
        zeltest::RecordingLogger logger;
        rdr::MemOutStream out(4);  // small, so that every field may cross a regrowth
        CDBWriter writer(out, &logger);
        sample.write(writer);
        EXPECT_EQ(zeltest::hex(out.data(), out.length()),
                  zeltest::hex(zeltest::parseHex(sample.hex)));
        EXPECT_EQ(logged(logger), "CDBWriter/100 Sending " + sample.line + "\n");
    }
}

// The payload length field is 16 bits. A message that does not fit is refused with the
// library's exception before anything is logged or written; one that just fits goes out
// whole.
TEST(CDBWire, MessagesBeyondTheSixteenBitLengthAreRefusedWithNothingWritten) {
    static const Bytes kData(65533, 0x5a);
    // 250 services with 255-byte names and one with a name of lastName bytes: 65535 payload
    // bytes exactly when lastName is 24.
    auto directory = [](size_t lastName) {
        return [lastName](CDBWriter& w) {
            std::vector<CDBService> services(251);
            for (size_t i = 0; i < services.size(); ++i) {
                services[i].id = static_cast<uint16_t>(0x4000 + i);
                services[i].setName(std::string(i < 250 ? 255 : lastName, 'n').c_str());
            }
            w.sendServicesSupported({1, 1}, services.data(), services.size());
        };
    };
    auto payload = [](size_t n) {
        return [n](CDBWriter& w) { w.sendServicePayload(0x4001, 0, kData.data(), n); };
    };
    const std::pair<std::function<void(CDBWriter&)>, bool> cases[] = {
        {directory(24), true},  {directory(25), false},  {directory(255), false},
        {payload(65532), true}, {payload(65533), false}, {payload(SIZE_MAX), false}};
    for (const auto& c : cases) {
        zeltest::RecordingLogger logger;
        rdr::MemOutStream out(4);
        CDBWriter writer(out, &logger);
        writer.sendPing(7);
        if (!c.second) {
            EXPECT_THROW(c.first(writer), CDBWriter::MessageTooLong);
            EXPECT_EQ(zeltest::hex(out.data(), out.length(), ""), "B10800020007");
            EXPECT_EQ(logger.lines.size(), 1u);  // the Ping's line only
            continue;
        }
        c.first(writer);
        ASSERT_EQ(out.length(), 6u + 4 + 65535);
        EXPECT_EQ(zeltest::hex(out.data() + 8, 2, ""), "FFFF");
    }
    EXPECT_STREQ(CDBWriter::MessageTooLong(65766).str(),
                 "CDB message too long: 65766 payload bytes, at most 65535");
}

// All messages back to back, whole, one byte at a time and in random chunks, through buffers
// smaller than the largest payload so that collection and compaction happen at any offset:
// after every chunk, exactly the messages whose last byte has arrived have been handed back,
// once and unchanged. Fed whole, every payload is read in place and each message logs its
// line.
TEST(CDBWire, ReaderResumesAtAnyByte) {
    std::vector<size_t> ends;
    Bytes all = allSamples(&ends);
    std::mt19937 random(20240611);
    for (size_t bufferSize : {size_t(0), size_t(300), size_t(1000)}) {
        for (int round = 0; round < 40; ++round) {
            Reader r(bufferSize);
            size_t maxChunk = round == 0 ? all.size() : round == 1 ? 1 : round % 2 ? 17 : 3000;
            for (size_t at = 0; at < all.size();) {
                size_t chunk = round == 0 ? maxChunk : 1 + random() % maxChunk;
                chunk = std::min(all.size() - at, chunk);
                r.in.feed(all.data() + at, chunk);
                at += chunk;
                r.drain();
                size_t whole = 0;
                for (size_t end : ends) whole = end <= at ? end : whole;
                ASSERT_EQ(r.handler.out.length(), whole)
                    << "buffer " << bufferSize << " round " << round << " at " << at;
            }
            ASSERT_EQ(r.handler.bytes(), all) << "buffer " << bufferSize << " round " << round;
            if (bufferSize != 0 || round != 0) continue;
            for (const uint8_t* payload : r.handler.payloads) EXPECT_TRUE(r.in.inBuffer(payload));
            std::string lines;
            for (const Sample& sample : samples())
                lines += "CDBReader/100 Received " + sample.line + "\n";
            EXPECT_EQ(logged(r.logger), lines);
        }
    }
}

// Bytes beyond a message's fields are skipped, one at a time or more of them than the buffer
// holds; a payload over 8100 bytes is discarded with a warning.
TEST(CDBWire, SurplusBytesAreSkippedAndOversizedPayloadsDropped) {
    Bytes biggest = header(0xb105, 8103) + Bytes{0x40, 0x01, 3} + pattern(8100, 0);
    Bytes tooBig = header(0xb105, 8104) + Bytes{0x40, 0x01, 3} + pattern(8101, 0);
    Bytes script = header(0xb103, 9) + Bytes{0x40, 0x01, 1, 0, 9, 9, 9, 9, 9} + header(0xb109, 2) +
                   Bytes{0xb1, 0x08} + header(0xb102, 4 + 8 + 3) +
                   Bytes{1, 1, 0, 1, 0x40, 2, 1, 0, 0, 0, 1, 'x', 0xb1, 0xb1, 0xb1} +
                   header(0xb101, 3) + Bytes{1, 0, 0xb1} + header(0xb101, 65535) + Bytes{1, 1} +
                   Bytes(65533, 0xee) + biggest + tooBig + kPing5;
    const CDBService x(0x4002, {1, 0}, 0, 0, "x");
    Bytes expected = written([&](CDBWriter& w) {
                         w.sendStartService(0x4001, {1, 0});
                         w.sendByeBye();
                         w.sendServicesSupported({1, 1}, &x, 1);
                         w.sendServicesRequest({1, 0});
                         w.sendServicesRequest({1, 1});
                     }) +
                     biggest + kPing5;
    for (size_t chunk : {size_t(1), script.size()}) {
        Reader r(64);
        for (size_t at = 0; at < script.size(); at += chunk) {
            r.in.feed(script.data() + at, std::min(chunk, script.size() - at));
            r.drain();
        }
        EXPECT_EQ(r.handler.bytes(), expected) << "chunk " << chunk;
        EXPECT_NE(logged(r.logger).find("CDBReader/30 Received ServicePayload with length 8101, "
                                        "but maximum is 8100 - discarding it\n"),
                  std::string::npos);
    }
}

// Fed one byte at a time, each error comes only once all its fields are in, and not before:
// the StartService that declares 3 bytes waits for its fourth field byte, which is the first
// byte of the next message.
TEST(CDBWire, FieldsBeyondTheDeclaredLengthAndUnknownTypesAreErrors) {
    auto truncated = [](int type, int declared) {
        return format(
            "Received message of type 0x%04x with truncated payload (payload length was %d)", type,
            declared);
    };
    const std::pair<Bytes, std::string> cases[] = {
        {header(0xb103, 3) + Bytes{0x40, 0x01, 1, 0xb1}, truncated(0xb103, 3)},
        {header(0xb101, 1) + Bytes{1, 1}, truncated(0xb101, 1)},
        {header(0xb102, 3) + Bytes{1, 1, 0, 0}, truncated(0xb102, 3)},
        {header(0xb102, 4 + 7 + 1) + Bytes{1, 1, 0, 1, 0, 1, 1, 0, 0, 0, 2, 'a', 'b'},
         truncated(0xb102, 12)},
        {header(0xb104, 0) + Bytes{0, 1}, truncated(0xb104, 0)},
        {header(0xb105, 2) + Bytes{0, 1, 0}, truncated(0xb105, 2)},
        {header(0xb106, 1) + Bytes{0, 1}, truncated(0xb106, 1)},
        {header(0xb107, 3) + Bytes{0, 1, 0, 0}, truncated(0xb107, 3)},
        {header(0xb108, 0) + Bytes{0, 1}, truncated(0xb108, 0)},
        {header(0xb100, 0), "Unknown message type 45312 (0xb100)"},
        {header(0xb10a, 0), "Unknown message type 45322 (0xb10a)"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.second);
        Reader r;
        for (size_t i = 0; i + 1 < c.first.size(); ++i) {
            r.in.feed(&c.first[i], 1);
            ASSERT_EQ(r.drain(), 0) << "byte " << i;
        }
        r.in.feed(&c.first.back(), 1);
        try {
            r.drain();
            ADD_FAILURE() << "no error";
        } catch (const zelcdbsdk::CDBProtocolError& e) {
            EXPECT_EQ(e.str(), c.second);
        }
        EXPECT_EQ(r.in.pos(), c.first.size());
        EXPECT_EQ(r.handler.out.length(), 0u);
    }
}

// A handler's exception comes out of processMessages (a BlockException too, which must not
// be taken for missing input); the reader then goes on after that message and never hands
// the same one over twice.
TEST(CDBWire, ReaderCarriesOnAfterAThrowingHandler) {
    Bytes payload = written([](CDBWriter& w) { w.sendServicePayload(7, 1, "xyz", 3); });
    Bytes start = header(0xb103, 6) + Bytes{0, 3, 1, 0, 0xaa, 0xbb};
    Bytes next = written([](CDBWriter& w) { w.sendServicePayload(8, 2, "ab", 2); });
    for (size_t split : {payload.size(), size_t(8)}) {  // delivered in place, then collected
        SCOPED_TRACE(split);
        Reader r;
        r.handler.throwsLeft = 2;
        r.in.feed(payload.data(), split);
        if (split < payload.size()) {
            EXPECT_EQ(r.drain(), 0);
        }
        // The StartService's surplus bytes and the next payload come only after its handler
        // threw.
        r.in.feed(Bytes(payload.begin() + static_cast<std::ptrdiff_t>(split), payload.end()) +
                  Bytes(start.begin(), start.end() - 2));
        EXPECT_THROW(r.drain(), plat::Exception);
        EXPECT_THROW(r.drain(), rdr::BlockException);
        EXPECT_EQ(r.drain(), 0);
        r.in.feed(Bytes(start.end() - 2, start.end()) + next);
        EXPECT_EQ(r.drain(), 2);
        EXPECT_EQ(r.handler.bytes(), payload + written([](CDBWriter& w) {
                                         w.sendStartService(3, {1, 0});
                                     }) + next);
        EXPECT_EQ(r.in.pos(), payload.size() + start.size() + next.size());
    }
}

// A payload larger than the stream's buffer is collected into a block of its own. When that
// block cannot be allocated the reader throws std::bad_alloc, and a later call must start
// the collection again rather than copy into the block it does not have.
TEST(CDBWire, PayloadCollectorRecoversFromAFailedAllocation) {
    const Bytes data = pattern(1000, 3);
    const Bytes message =
        written([&](CDBWriter& w) { w.sendServicePayload(0x4001, 7, data.data(), data.size()); });
    for (unsigned n = 1;; ++n) {
        SCOPED_TRACE(n);
        Reader r(64);
        r.in.feed(message.data(), 500);
        bool threw = false, triggered;
        {
            zeltest::FailNthAllocation failure(n);
            try {
                r.reader.processMessages();
            } catch (const std::bad_alloc&) {
                threw = true;
            }
            triggered = failure.triggered();
        }
        EXPECT_EQ(threw, triggered);
        r.in.feed(message.data() + 500, message.size() - 500);
        EXPECT_EQ(r.drain(), 1);
        EXPECT_EQ(r.handler.bytes(), message);
        if (!triggered) {
            EXPECT_GE(n, 2u);  // the collector's block did fail once
            break;
        }
        ASSERT_LT(n, 20u);
    }
}

}  // namespace
