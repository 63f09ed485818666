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
Bytes pattern(size_t length) {
    Bytes data(length);
    for (size_t i = 0; i < length; ++i) data[i] = static_cast<uint8_t>(11 + i * 7);
    return data;
}
const Bytes kLargest = pattern(zelcdbsdk::kMaxServicePayloadLength);
const std::string kLongName(255, 'n');

// A reader over a stream the test feeds, writing down what it decodes. Its handler throws
// while throwsLeft lasts: at payloads plat::Exception, at starts rdr::BlockException.
struct Reader : TextHandler {
    explicit Reader(size_t bufferSize = 0) : in(bufferSize) {}
    // Runs the reader until it needs more input; returns how many messages completed.
    int drain() {
        int completed = 0;
        while (reader.processMessages()) ++completed;
        return completed;
    }
    void handleStartService(uint16_t id, CDBVersion v) override {
        TextHandler::handleStartService(id, v);
        if (throwsLeft-- > 0) throw rdr::BlockException();
    }
    void handleServicePayload(uint16_t id, uint8_t ac, size_t n, const uint8_t* data) override {
        payloads.push_back(data);
        TextHandler::handleServicePayload(id, ac, n, data);
        if (throwsLeft-- > 0) throw plat::Exception("handler failed");
    }
    int throwsLeft = 0;
    std::vector<const uint8_t*> payloads;
    zeltest::RecordingLogger logger;
    FeedInStream in;
    zelcdbsdk::CDBReader reader{*this, in, &logger};
};

// One message of each kind, with names and payload sizes at the limits, and below, each as
// it must go on the wire (blanks only for reading) with its line after "Sending " or
// "Received ".
void writeSamples(CDBWriter& w) {
    const CDBService services[] = {CDBService(0x4001, {2, 3}, 0x81, 0x5a, "ab"),
                                   CDBService(0x7fff, {255, 254}, 7, 0, kLongName.c_str()),
                                   CDBService(0x4100, {3, 4}, 0x01, 0x22, "")};
    w.sendServicesRequest({1, 1});
    w.sendServicesSupported({1, 1}, services, 3);
    w.sendServicesSupported({1, 0}, nullptr, 0);
    w.sendStartService(0x4001, {2, 0});
    w.sendStopService(0x0012);
    w.sendServicePayload(0x4002, 0x7e, "\xde\xad\0\xbe\xef", 5);
    w.sendServicePayload(1, 2, nullptr, 0);
    w.sendServicePayload(0x4006, 0, kLargest.data(), kLargest.size());
    w.sendPingResponse(0xfffe);
    w.sendServiceResponse(0x4003, 0x020a);
    w.sendPing(258);
    w.sendByeBye();
}
const std::vector<std::pair<std::string, std::string>> kSamples = {
    {"b101 0002 0101", "ServicesRequest (endpoint version 1.1)"},
    {"b102 011a 0101 0003 4001 0203 81 5a 02 6162 7fff fffe 07 00 ff" +
         zeltest::hex(kLongName.data(), 255, "") + "4100 0304 01 22 00",
     "ServicesSupported (endpoint version 1.1, 3 services)"},
    {"b102 0004 0100 0000", "ServicesSupported (endpoint version 1.0, 0 services)"},
    {"b103 0004 4001 0200", "StartService, service 16385 (0x4001), version 2.0"},
    {"b104 0002 0012", "StopService, service 18 (0x0012)"},
    {"b105 0008 4002 7e dead00beef", "ServicePayload, service 16386 (0x4002), length 5"},
    {"b105 0003 0001 02", "ServicePayload, service 1 (0x0001), length 0"},
    {"b105 1fa7 4006 00" + zeltest::hex(kLargest, ""),
     "ServicePayload, service 16390 (0x4006), length 8100"},
    {"b106 0002 fffe", "PingResponse, sequence number 65534"},
    {"b107 0004 4003 020a", "ServiceResponse, service 16387 (0x4003), response 020a"},
    {"b108 0002 0102", "Ping, sequence number 258"},
    {"b109 0000", "ByeBye"},
};

std::string logged(const zeltest::RecordingLogger& logger) {
    std::string text;
    for (const auto& l : logger.lines)
        text += format("%s/%d %s\n", l.facility.c_str(), l.level, l.text.c_str());
    return text;
}
std::string lines(const char* prefix) {
    std::string text;
    for (const auto& sample : kSamples) text += prefix + sample.second + "\n";
    return text;
}

TEST(CDBWire, EachMessageIsWrittenWithItsDebugLine) {
    zeltest::RecordingLogger logger;
    rdr::MemOutStream out(4);  // small, so that fields cross regrowths
    CDBWriter writer(out, &logger);
    writeSamples(writer);
    std::string hex;
    for (const auto& sample : kSamples) hex += sample.first;
    EXPECT_EQ(zeltest::hex(out.data(), out.length()), zeltest::hex(zeltest::parseHex(hex)));
    EXPECT_EQ(logged(logger), lines("CDBWriter/100 Sending "));
}

// The payload length field is 16 bits. A message that does not fit is refused with the
// library's exception before anything is logged or written; one that just fits goes out
// whole. 250 services with 255-byte names and one with a name of 24 bytes fill it exactly.
TEST(CDBWire, MessagesBeyondTheSixteenBitLengthAreRefusedWithNothingWritten) {
    static const Bytes kData(65533, 0x5a);
    std::vector<CDBService> services(251);
    for (size_t i = 0; i < services.size(); ++i) {
        services[i].id = static_cast<uint16_t>(0x4000 + i);
        services[i].setName(std::string(255, 'n').c_str());
    }
    for (size_t n : {size_t(24), size_t(25), size_t(65532), size_t(65533), SIZE_MAX}) {
        SCOPED_TRACE(n);
        zeltest::RecordingLogger logger;
        rdr::MemOutStream out(4);
        CDBWriter writer(out, &logger);
        writer.sendPing(7);
        services.back().setName(std::string(n < 256 ? n : 0, 'n').c_str());
        auto write = [&] {
            if (n < 256) writer.sendServicesSupported({1, 1}, services.data(), services.size());
            if (n >= 256) writer.sendServicePayload(0x4001, 0, kData.data(), n);
        };
        if (n == 24 || n == 65532) {
            write();
            ASSERT_EQ(out.length(), 6u + 4 + 65535);
            EXPECT_EQ(zeltest::hex(out.data() + 8, 2, ""), "FFFF");
            continue;
        }
        EXPECT_THROW(write(), CDBWriter::MessageTooLong);
        EXPECT_EQ(zeltest::hex(out.data(), out.length(), ""), "B10800020007");
        EXPECT_EQ(logger.lines.size(), 1u);  // the Ping's line only
    }
    EXPECT_STREQ(CDBWriter::MessageTooLong(65766).str(),
                 "CDB message too long: 65766 payload bytes, at most 65535");
}

// All messages back to back, whole, one byte at a time and in random chunks, through buffers
// smaller than the largest payload so that collection and compaction happen at any offset:
// after every chunk, exactly the messages whose last byte has arrived have been handed over,
// once and as when fed whole. Fed whole, every payload is read in place and each message
// logs its line.
TEST(CDBWire, ReaderResumesAtAnyByte) {
    Bytes all;
    std::vector<size_t> ends;
    for (const auto& sample : kSamples) {
        all = all + zeltest::parseHex(sample.first);
        ends.push_back(all.size());
    }
    std::mt19937 random(20240611);
    Lines whole;
    for (size_t bufferSize : {size_t(0), size_t(300), size_t(1000)}) {
        for (int round = 0; round < 24; ++round) {
            Reader r(bufferSize);
            size_t maxChunk = round == 0 ? all.size() : round == 1 ? 1 : round % 2 ? 17 : 3000;
            for (size_t at = 0; at < all.size();) {
                size_t chunk = round == 0 ? maxChunk : 1 + random() % maxChunk;
                chunk = std::min(all.size() - at, chunk);
                r.in.feed(all.data() + at, chunk);
                at += chunk;
                r.drain();
                size_t done = static_cast<size_t>(
                    std::count_if(ends.begin(), ends.end(), [&](size_t end) { return end <= at; }));
                ASSERT_EQ(r.messages.size(), done)
                    << "buffer " << bufferSize << " round " << round << " at " << at;
            }
            if (!whole.empty()) {
                ASSERT_EQ(r.messages, whole) << "buffer " << bufferSize << " round " << round;
                continue;
            }
            whole = r.messages;
            for (const uint8_t* payload : r.payloads) EXPECT_TRUE(r.in.inBuffer(payload));
            EXPECT_EQ(logged(r.logger), lines("CDBReader/100 Received "));
            EXPECT_EQ(whole[1], "ServicesSupported 1.1: 0x4001 ab 2.3 attr=129 ac=90, 0x7fff " +
                                    kLongName + " 255.254 attr=7 ac=0, 0x4100  3.4 attr=1 ac=34");
            EXPECT_EQ(whole[7], "ServicePayload 0x4006 ac=0 " + zeltest::hex(kLargest, ""));
        }
    }
}

// Byte scripts, fed one byte at a time and whole. Bytes beyond a message's fields are
// skipped, one at a time or more of them than the buffer holds; a payload over 8100 bytes
// is discarded with a warning. A field beyond the declared length, or an unknown type, is an
// error, which comes only once all its fields are in: the StartService that declares 3 bytes
// waits for its fourth field byte, the first byte of the next message.
TEST(CDBWire, SurplusBytesAreSkippedAndBadFramesAreErrors) {
    auto truncated = [](int type, int declared) {
        return format(
            "Received message of type 0x%04x with truncated payload (payload length was %d)", type,
            declared);
    };
    const Bytes ping5 = {0xb1, 0x08, 0x00, 0x02, 0x00, 0x05};
    const struct {
        Bytes script;
        std::string messages, error;
    } cases[] = {
        {header(0xb103, 9) + Bytes{0x40, 0x01, 1, 0, 9, 9, 9, 9, 9} + header(0xb109, 2) +
             Bytes{0xb1, 0x08} + header(0xb102, 4 + 8 + 3) +
             Bytes{1, 1, 0, 1, 0x40, 2, 1, 0, 0, 0, 1, 'x', 0xb1, 0xb1, 0xb1} + header(0xb101, 3) +
             Bytes{1, 0, 0xb1} + header(0xb101, 65535) + Bytes{1, 1} + Bytes(65533, 0xee) +
             header(0xb105, 8103) + Bytes{0x40, 0x01, 3} + kLargest + header(0xb105, 8104) +
             Bytes{0x40, 0x01, 3} + kLargest + Bytes{0} + ping5,
         "StartService 0x4001 1.0|ByeBye|ServicesSupported 1.1: 0x4002 x 1.0 attr=0 ac=0|"
         "ServicesRequest 1.0|ServicesRequest 1.1|ServicePayload 0x4001 ac=3 " +
             zeltest::hex(kLargest, "") + "|Ping 5|",
         ""},
        {header(0xb103, 3) + Bytes{0x40, 0x01, 1, 0xb1}, "", truncated(0xb103, 3)},
        {header(0xb101, 1) + Bytes{1, 1}, "", truncated(0xb101, 1)},
        {header(0xb102, 3) + Bytes{1, 1, 0, 0}, "", truncated(0xb102, 3)},
        {header(0xb102, 4 + 7 + 1) + Bytes{1, 1, 0, 1, 0, 1, 1, 0, 0, 0, 2, 'a', 'b'}, "",
         truncated(0xb102, 12)},
        {header(0xb104, 0) + Bytes{0, 1}, "", truncated(0xb104, 0)},
        {header(0xb105, 2) + Bytes{0, 1, 0}, "", truncated(0xb105, 2)},
        {header(0xb106, 1) + Bytes{0, 1}, "", truncated(0xb106, 1)},
        {header(0xb107, 3) + Bytes{0, 1, 0, 0}, "", truncated(0xb107, 3)},
        {header(0xb108, 0) + Bytes{0, 1}, "", truncated(0xb108, 0)},
        {header(0xb100, 0), "", "Unknown message type 45312 (0xb100)"},
        {header(0xb10a, 0), "", "Unknown message type 45322 (0xb10a)"},
    };
    for (const auto& c : cases) {
        for (size_t chunk : {size_t(1), c.script.size()}) {
            SCOPED_TRACE(format("chunk %zu: ", chunk) + c.error);
            Reader r(64);
            std::string error, messages;
            for (size_t at = 0; at < c.script.size(); at += chunk) {
                r.in.feed(c.script.data() + at, std::min(chunk, c.script.size() - at));
                try {
                    r.drain();
                } catch (const zelcdbsdk::CDBProtocolError& e) {
                    EXPECT_GE(at + chunk, c.script.size());
                    error = e.str();
                }
            }
            for (const std::string& m : r.messages) messages += m + "|";
            EXPECT_EQ(messages, c.messages);
            EXPECT_EQ(error, c.error);
            EXPECT_EQ(r.in.pos(), c.script.size());
            if (c.error.empty()) {
                EXPECT_NE(logged(r.logger).find("CDBReader/30 Received ServicePayload with length "
                                                "8101, but maximum is 8100 - discarding it\n"),
                          std::string::npos);
            }
        }
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
        r.throwsLeft = 2;
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
        EXPECT_EQ(r.messages, (Lines{"ServicePayload 0x0007 ac=1 78797A", "StartService 0x0003 1.0",
                                     "ServicePayload 0x0008 ac=2 6162"}));
        EXPECT_EQ(r.in.pos(), payload.size() + start.size() + next.size());
    }
}

// A payload larger than the stream's buffer is collected into a block of its own. When that
// block cannot be allocated the reader throws std::bad_alloc, and a later call must start
// the collection again rather than copy into the block it does not have.
TEST(CDBWire, PayloadCollectorRecoversFromAFailedAllocationAndKeepsItsBlock) {
    const Bytes message =
        written([](CDBWriter& w) { w.sendServicePayload(0x4001, 7, kLargest.data(), 1000); });
    bool failed = true;
    unsigned n = 1;
    for (; failed; ++n) {
        SCOPED_TRACE(n);
        Reader r(64);
        r.in.feed(message.data(), 500);
        bool threw = false;
        {
            zeltest::FailNthAllocation failure(n);
            try {
                r.reader.processMessages();
            } catch (const std::bad_alloc&) {
                threw = true;
            }
            failed = failure.triggered();
        }
        EXPECT_EQ(threw, failed);
        r.in.feed(message.data() + 500, message.size() - 500);
        EXPECT_EQ(r.drain(), 1);
        EXPECT_EQ(r.messages,
                  Lines{"ServicePayload 0x4001 ac=7 " + zeltest::hex(kLargest.data(), 1000, "")});
        ASSERT_LT(n, 20u);
    }
    EXPECT_GE(n, 3u);  // the collector's block did fail once
    // The block is kept: the next split payload of its size is collected without allocating.
    Reader r(64);
    for (int round = 1; round <= 2; ++round) {
        r.in.feed(message.data(), 500);
        {
            zeltest::FailNthAllocation failure(round == 2 ? 1 : 100);
            EXPECT_NO_THROW(r.reader.processMessages()) << round;
        }
        r.in.feed(message.data() + 500, message.size() - 500);
        EXPECT_EQ(r.drain(), 1);
    }
}

}  // namespace
