#include <gtest/gtest.h>

#include <random>

#include "CDBTestSupport.h"
#include "cdb/CDBProtocolError.h"
#include "rdr/Exceptions.h"

namespace {

using cdbtest::Bytes;
using cdbtest::drain;
using cdbtest::operator+;
using cdbtest::written;
using zelcdbsdk::CDBService;
using zelcdbsdk::CDBVersion;
using zelcdbsdk::CDBWriter;

Bytes header(uint16_t type, uint16_t length) {
    return {static_cast<uint8_t>(type >> 8), static_cast<uint8_t>(type),
            static_cast<uint8_t>(length >> 8), static_cast<uint8_t>(length)};
}

std::string truncated(const char* type, int declared) {
    return std::string("Received message of type ") + type +
           " with truncated payload (payload length was " + std::to_string(declared) + ")";
}

const Bytes kPing5 = {0xb1, 0x08, 0x00, 0x02, 0x00, 0x05};

template <typename Handler = cdbtest::EchoHandler>
struct Reader {
    explicit Reader(size_t bufferSize = 0) : in(bufferSize), reader(handler, in, &logger) {}
    cdbtest::RecordingLogger logger;
    Handler handler;
    cdbtest::FeedInStream in;
    zelcdbsdk::CDBReader reader;
};

Bytes allSamples(std::vector<size_t>* ends = nullptr) {
    Bytes all;
    for (const cdbtest::Sample& sample : cdbtest::samples()) {
        all = all + written(sample.write);
        if (ends) ends->push_back(all.size());
    }
    return all;
}

TEST(CDBReader, ReadsBackEveryMessageInPlaceAndLogsEach) {
    Reader<> r;
    Bytes all = allSamples();
    r.in.feed(all);
    EXPECT_EQ(drain(r.reader), static_cast<int>(cdbtest::samples().size()));
    EXPECT_EQ(r.handler.bytes(), all);
    for (const uint8_t* payload : r.handler.payloads) EXPECT_TRUE(r.in.inBuffer(payload));
    ASSERT_EQ(r.logger.lines.size(), cdbtest::samples().size());
    for (size_t i = 0; i < r.logger.lines.size(); ++i) {
        EXPECT_EQ(r.logger.lines[i].text, "Received " + cdbtest::samples()[i].line);
        EXPECT_EQ(r.logger.lines[i].level, plat::kLogDebug);
        EXPECT_EQ(r.logger.lines[i].facility, "CDBReader");
    }
}

// All messages back to back, one byte at a time and in random chunks, through buffers smaller
// than the largest payload so that collection and compaction happen at any offset: after
// every chunk, exactly the messages whose last byte has arrived have been handled, once.
TEST(CDBReader, AllMessagesOneByteAtATimeAndInRandomChunks) {
    std::vector<size_t> ends;
    Bytes all = allSamples(&ends);
    std::mt19937 random(20240611);
    for (size_t bufferSize : {size_t(300), size_t(1000), size_t(0)}) {
        for (int round = 0; round < 40; ++round) {
            Reader<> r(bufferSize);
            size_t maxChunk = round == 0 ? 1 : round % 2 ? 17 : 3000;
            for (size_t at = 0; at < all.size();) {
                size_t chunk = std::min(all.size() - at, size_t(1) + random() % maxChunk);
                r.in.feed(all.data() + at, chunk);
                at += chunk;
                drain(r.reader);
                size_t whole = 0;
                for (size_t end : ends) whole = end <= at ? end : whole;
                ASSERT_EQ(r.handler.out.length(), whole)
                    << "buffer " << bufferSize << " round " << round << " at " << at;
            }
            ASSERT_EQ(r.handler.bytes(), all) << "buffer " << bufferSize << " round " << round;
        }
    }
}

// Bytes beyond a message's fields are skipped, one at a time or more of them than the buffer
// holds.
TEST(CDBReader, SurplusBytesAfterTheFieldsAreSkipped) {
    Bytes script = header(0xb103, 9) + Bytes{0x40, 0x01, 1, 0, 9, 9, 9, 9, 9} + header(0xb109, 2) +
                   Bytes{0xb1, 0x08} + header(0xb102, 4 + 8 + 3) +
                   Bytes{1, 1, 0, 1, 0x40, 2, 1, 0, 0, 0, 1, 'x', 0xb1, 0xb1, 0xb1} +
                   header(0xb101, 3) + Bytes{1, 0, 0xb1} + header(0xb101, 65535) + Bytes{1, 1} +
                   Bytes(65533, 0xee) + kPing5;
    const CDBService x(0x4002, {1, 0}, 0, 0, "x");
    Bytes expected = written([&](CDBWriter& w) {
        w.sendStartService(0x4001, {1, 0});
        w.sendByeBye();
        w.sendServicesSupported({1, 1}, &x, 1);
        w.sendServicesRequest({1, 0});
        w.sendServicesRequest({1, 1});
        w.sendPing(5);
    });
    for (size_t chunk : {size_t(1), script.size()}) {
        Reader<> r(64);
        for (size_t at = 0; at < script.size(); at += chunk) {
            r.in.feed(script.data() + at, std::min(chunk, script.size() - at));
            drain(r.reader);
        }
        EXPECT_EQ(r.handler.bytes(), expected) << "chunk " << chunk;
    }
}

// Fed one byte at a time, each error comes only once all its fields are in, and not before:
// the StartService that declares 3 bytes waits for its fourth field byte, which is the first
// byte of the next message.
TEST(CDBReader, FieldsBeyondTheDeclaredLengthAndUnknownTypesAreErrors) {
    const struct {
        Bytes bytes;
        std::string error;
    } cases[] = {
        {header(0xb103, 3) + Bytes{0x40, 0x01, 1, 0xb1},
         "Received message of type 0xb103 with truncated payload (payload length was 3)"},
        {header(0xb101, 1) + Bytes{1, 1}, truncated("0xb101", 1)},
        {header(0xb102, 3) + Bytes{1, 1, 0, 0}, truncated("0xb102", 3)},
        {header(0xb102, 4 + 7 + 1) + Bytes{1, 1, 0, 1, 0, 1, 1, 0, 0, 0, 2, 'a', 'b'},
         truncated("0xb102", 12)},
        {header(0xb104, 0) + Bytes{0, 1}, truncated("0xb104", 0)},
        {header(0xb105, 2) + Bytes{0, 1, 0}, truncated("0xb105", 2)},
        {header(0xb106, 1) + Bytes{0, 1}, truncated("0xb106", 1)},
        {header(0xb107, 3) + Bytes{0, 1, 0, 0}, truncated("0xb107", 3)},
        {header(0xb108, 0) + Bytes{0, 1}, truncated("0xb108", 0)},
        {header(0xb100, 0), "Unknown message type 45312 (0xb100)"},
        {header(0xb10a, 0), "Unknown message type 45322 (0xb10a)"},
        {header(0x0000, 0), "Unknown message type 0 (0x0000)"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.error);
        Reader<> r;
        for (size_t i = 0; i + 1 < c.bytes.size(); ++i) {
            r.in.feed(&c.bytes[i], 1);
            ASSERT_EQ(drain(r.reader), 0) << "byte " << i;
        }
        r.in.feed(&c.bytes.back(), 1);
        try {
            drain(r.reader);
            ADD_FAILURE() << "no error";
        } catch (const zelcdbsdk::CDBProtocolError& e) {
            EXPECT_EQ(e.str(), c.error);
        }
        EXPECT_EQ(r.in.pos(), c.bytes.size());
        EXPECT_EQ(r.handler.out.length(), 0u);
    }
}

TEST(CDBReader, PayloadOf8100IsDeliveredAndOf8101DiscardedWithAWarning) {
    Reader<> r;
    Bytes biggest = header(0xb105, 8103) + Bytes{0x40, 0x01, 3} + cdbtest::pattern(8100, 0);
    Bytes tooBig = header(0xb105, 8104) + Bytes{0x40, 0x01, 3} + cdbtest::pattern(8101, 0);
    r.in.feed(biggest + tooBig + kPing5);
    EXPECT_EQ(drain(r.reader), 3);
    EXPECT_EQ(r.handler.bytes(), biggest + kPing5);
    std::vector<std::string> warnings;
    for (const auto& line : r.logger.lines)
        if (line.level == plat::kLogInfo) warnings.push_back(line.text);
    EXPECT_EQ(warnings, std::vector<std::string>{"Received ServicePayload with length 8101, but "
                                                 "maximum is 8100 - discarding it"});
}

// A handler's exception comes out of processMessages (a BlockException too, which must not
// be taken for missing input); the reader then goes on after that message and never hands
// the same one over twice.
struct ThrowingHandler : cdbtest::EchoHandler {
    int throwsLeft = 2;
    void handleServicePayload(uint16_t id, uint8_t ac, size_t n, const uint8_t* data) override {
        EchoHandler::handleServicePayload(id, ac, n, data);
        if (throwsLeft-- > 0) throw plat::Exception("handler failed");
    }
    void handleStartService(uint16_t id, CDBVersion v) override {
        EchoHandler::handleStartService(id, v);
        if (throwsLeft-- > 0) throw rdr::BlockException();
    }
};

TEST(CDBReader, CarriesOnAfterAThrowingHandler) {
    Bytes payload = written([](CDBWriter& w) { w.sendServicePayload(7, 1, "xyz", 3); });
    Bytes start = header(0xb103, 6) + Bytes{0, 3, 1, 0, 0xaa, 0xbb};
    Bytes next = written([](CDBWriter& w) { w.sendServicePayload(8, 2, "ab", 2); });
    for (size_t split : {payload.size(), size_t(8)}) {  // delivered in place, then collected
        SCOPED_TRACE(split);
        Reader<ThrowingHandler> r;
        r.in.feed(payload.data(), split);
        if (split < payload.size()) {
            EXPECT_EQ(drain(r.reader), 0);
        }
        // The StartService's surplus bytes and the next payload come only after its handler
        // threw.
        r.in.feed(Bytes(payload.begin() + static_cast<std::ptrdiff_t>(split), payload.end()) +
                  Bytes(start.begin(), start.end() - 2));
        EXPECT_THROW(drain(r.reader), plat::Exception);
        EXPECT_THROW(drain(r.reader), rdr::BlockException);
        EXPECT_EQ(drain(r.reader), 0);
        r.in.feed(Bytes(start.end() - 2, start.end()) + next);
        EXPECT_EQ(drain(r.reader), 2);
        EXPECT_EQ(r.handler.bytes(), payload + written([](CDBWriter& w) {
                                         w.sendStartService(3, {1, 0});
                                     }) + next);
        EXPECT_EQ(r.in.pos(), payload.size() + start.size() + next.size());
    }
}

}  // namespace
