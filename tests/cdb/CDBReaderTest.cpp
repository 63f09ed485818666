#include <gtest/gtest.h>

#include <random>

#include "CDBTestSupport.h"
#include "cdb/CDBProtocolError.h"
#include "cdb/CDBReader.h"
#include "plat/Exception.h"
#include "rdr/Exceptions.h"

namespace {

using cdbtest::Bytes;
using cdbtest::drain;
using cdbtest::FeedInStream;
using cdbtest::RecordingHandler;
using cdbtest::Sample;
using zelcdbsdk::CDBProtocolError;
using zelcdbsdk::CDBReader;

Bytes header(uint16_t type, uint16_t length) {
    return {static_cast<uint8_t>(type >> 8), static_cast<uint8_t>(type),
            static_cast<uint8_t>(length >> 8), static_cast<uint8_t>(length)};
}

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

const Bytes kPing5 = {0xb1, 0x08, 0x00, 0x02, 0x00, 0x05};

struct ReaderFixture : ::testing::Test {
    explicit ReaderFixture(size_t bufferSize = 0) : in(bufferSize), reader(handler, in, &logger) {}
    cdbtest::RecordingLogger logger;
    RecordingHandler handler;
    FeedInStream in;
    CDBReader reader;
};

TEST_F(ReaderFixture, ReadsBackEveryMessageTheWriterWritesAndLogsEach) {
    std::vector<Sample> samples = cdbtest::sampleMessages();
    in.feed(cdbtest::concatenate(samples));
    EXPECT_EQ(drain(reader), static_cast<int>(samples.size()));
    ASSERT_EQ(handler.events.size(), samples.size());
    for (size_t i = 0; i < samples.size(); ++i)
        EXPECT_EQ(handler.events[i], samples[i].event) << samples[i].name;

    std::vector<std::string> lines;
    for (const cdbtest::LogLine& line : logger.lines) {
        EXPECT_EQ(line.level, plat::kLogDebug);
        EXPECT_EQ(line.facility, "CDBReader");
        lines.push_back(line.text);
    }
    const std::vector<std::string> expected = {
        "Received ServicesRequest (endpoint version 1.1)",
        "Received ServicesSupported (endpoint version 1.1, 3 services)",
        "Received ServicesSupported (endpoint version 1.0, 0 services)",
        "Received StartService, service 16385 (0x4001), version 2.9",
        "Received StopService, service 16383 (0x3fff)",
        "Received ServicePayload, service 16389 (0x4005), length 40",
        "Received ServicePayload, service 1 (0x0001), length 0",
        "Received ServicePayload, service 16390 (0x4006), length 8100",
        "Received PingResponse, sequence number 65535",
        "Received ServiceResponse, service 0 (0x0000), response 0209",
        "Received Ping, sequence number 0",
        "Received ByeBye",
    };
    EXPECT_EQ(lines, expected);
}

// Whatever the segmentation, each message reaches the handler once, whole, and only after
// its last byte.
TEST(CDBReaderSplit, EveryMessageSplitAtEveryByteBoundary) {
    for (const Sample& sample : cdbtest::sampleMessages()) {
        SCOPED_TRACE(sample.name);
        const Bytes& bytes = sample.bytes;
        for (size_t split = 0; split <= bytes.size(); ++split) {
            RecordingHandler handler;
            FeedInStream in;
            CDBReader reader(handler, in, nullptr);
            in.feed(bytes.data(), split);
            int first = drain(reader);
            ASSERT_EQ(first, split == bytes.size() ? 1 : 0) << "split " << split;
            in.feed(bytes.data() + split, bytes.size() - split);
            ASSERT_EQ(first + drain(reader), 1) << "split " << split;
            ASSERT_EQ(handler.events.size(), 1u);
            ASSERT_EQ(handler.events[0], sample.event) << "split " << split;
            ASSERT_EQ(in.pos(), bytes.size());
        }
    }
}

TEST(CDBReaderSplit, AllMessagesOneByteAtATime) {
    std::vector<Sample> samples = cdbtest::sampleMessages();
    Bytes all = cdbtest::concatenate(samples);
    RecordingHandler handler;
    FeedInStream in;
    CDBReader reader(handler, in, nullptr);
    size_t boundary = 0, next = 0;
    for (size_t i = 0; i < all.size(); ++i) {
        in.feed(&all[i], 1);
        int completed = drain(reader);
        if (i + 1 == boundary + samples[next].bytes.size()) {
            ASSERT_EQ(completed, 1) << samples[next].name;
            ASSERT_EQ(handler.events.back(), samples[next].event);
            boundary += samples[next].bytes.size();
            ++next;
        } else {
            ASSERT_EQ(completed, 0) << "byte " << i;
        }
    }
    EXPECT_EQ(next, samples.size());
    EXPECT_EQ(handler.events.size(), samples.size());
}

// Random segmentations through a buffer smaller than the largest payload, so collection
// and compaction happen at arbitrary offsets.
TEST(CDBReaderSplit, RandomChunksThroughSmallAndDefaultBuffers) {
    std::vector<Sample> samples = cdbtest::sampleMessages();
    std::vector<std::string> expected;
    for (const Sample& s : samples) expected.push_back(s.event);
    Bytes all = cdbtest::concatenate(samples);
    std::mt19937 random(20240611);
    for (size_t bufferSize : {size_t(300), size_t(1000), size_t(0)}) {
        for (int round = 0; round < 40; ++round) {
            RecordingHandler handler;
            FeedInStream in(bufferSize);
            CDBReader reader(handler, in, nullptr);
            size_t maxChunk = round % 2 ? 17 : 3000;
            for (size_t at = 0; at < all.size();) {
                size_t chunk = std::min(all.size() - at, size_t(1) + random() % maxChunk);
                in.feed(all.data() + at, chunk);
                at += chunk;
                drain(reader);
            }
            ASSERT_EQ(handler.events, expected) << "buffer " << bufferSize << " round " << round;
        }
    }
}

TEST_F(ReaderFixture, FullyBufferedPayloadIsDeliveredInPlaceAndASplitOneFromACopy) {
    Bytes payload = cdbtest::written(
        [](zelcdbsdk::CDBWriter& w) { w.sendServicePayload(0x4001, 1, "abcdef", 6); });
    in.feed(payload);
    ASSERT_EQ(drain(reader), 1);
    EXPECT_TRUE(in.inBuffer(handler.payloadPointers.back()));

    in.feed(payload.data(), 9);
    ASSERT_EQ(drain(reader), 0);
    in.feed(payload.data() + 9, payload.size() - 9);
    ASSERT_EQ(drain(reader), 1);
    EXPECT_FALSE(in.inBuffer(handler.payloadPointers.back()));
    EXPECT_EQ(handler.events[0], handler.events[1]);
}

struct SmallBufferReader : ReaderFixture {
    SmallBufferReader() : ReaderFixture(64) {}
};

TEST_F(SmallBufferReader, PayloadAndSurplusLargerThanTheBufferPassThrough) {
    Bytes data = cdbtest::patternBytes(8100, 5);
    Bytes payload = cdbtest::written(
        [&](zelcdbsdk::CDBWriter& w) { w.sendServicePayload(9, 8, data.data(), data.size()); });
    Bytes longRequest = header(0xb101, 65535) + Bytes{1, 1} + Bytes(65533, 0xee);
    in.feed(payload + longRequest + kPing5);
    EXPECT_EQ(drain(reader), 3);
    ASSERT_EQ(handler.events.size(), 3u);
    EXPECT_EQ(handler.events[0],
              "ServicePayload 9 c8 len 8100 " + cdbtest::hex(data.data(), data.size()));
    EXPECT_EQ(handler.events[1], "ServicesRequest 1.1");
    EXPECT_EQ(handler.events[2], "Ping 5");
}

TEST_F(ReaderFixture, SurplusBytesAfterTheFieldsAreSkipped) {
    in.feed(header(0xb103, 9) + Bytes{0x40, 0x01, 1, 0, 9, 9, 9, 9, 9} + header(0xb109, 2) +
            Bytes{0xb1, 0x08} + header(0xb102, 4 + 8 + 3) +
            Bytes{1, 1, 0, 1, 0x40, 2, 1, 0, 0, 0, 1, 'x', 0xb1, 0xb1, 0xb1} + kPing5);
    EXPECT_EQ(drain(reader), 4);
    EXPECT_EQ(handler.events,
              (std::vector<std::string>{"StartService 16385 1.0", "ByeBye",
                                        "ServicesSupported 1.1 count 1: [16386 1.0 a0 c0 'x']",
                                        "Ping 5"}));
}

TEST_F(ReaderFixture, StartServiceDeclaredThreeReadsIntoTheNextMessageThenFails) {
    in.feed(header(0xb103, 3) + Bytes{0x40, 0x01, 1});
    EXPECT_EQ(drain(reader), 0);  // the fourth field byte has not arrived
    in.feed(kPing5);
    try {
        drain(reader);
        FAIL() << "no error";
    } catch (const CDBProtocolError& e) {
        EXPECT_STREQ(
            e.str(),
            "Received message of type 0xb103 with truncated payload (payload length was 3)");
    }
    EXPECT_EQ(in.pos(), 8u);
    EXPECT_TRUE(handler.events.empty());
}

TEST_F(ReaderFixture, EveryFixedLayoutChecksItsDeclaredLength) {
    struct Case {
        Bytes bytes;
        const char* error;
    };
    const Case cases[] = {
        {header(0xb101, 1) + Bytes{1, 1}, "0xb101 with truncated payload (payload length was 1)"},
        {header(0xb102, 3) + Bytes{1, 1, 0, 0},
         "0xb102 with truncated payload (payload length was 3)"},
        {header(0xb102, 4 + 7 + 1) + Bytes{1, 1, 0, 1, 0, 1, 1, 0, 0, 0, 2, 'a', 'b'},
         "0xb102 with truncated payload (payload length was 12)"},
        {header(0xb104, 0) + Bytes{0, 1}, "0xb104 with truncated payload (payload length was 0)"},
        {header(0xb105, 2) + Bytes{0, 1, 0},
         "0xb105 with truncated payload (payload length was 2)"},
        {header(0xb106, 1) + Bytes{0, 1}, "0xb106 with truncated payload (payload length was 1)"},
        {header(0xb107, 3) + Bytes{0, 1, 0, 0},
         "0xb107 with truncated payload (payload length was 3)"},
        {header(0xb108, 0) + Bytes{0, 1}, "0xb108 with truncated payload (payload length was 0)"},
    };
    for (const Case& c : cases) {
        RecordingHandler handler;
        FeedInStream in;
        CDBReader reader(handler, in, nullptr);
        in.feed(c.bytes);
        try {
            drain(reader);
            ADD_FAILURE() << c.error << ": no error";
        } catch (const CDBProtocolError& e) {
            EXPECT_EQ(std::string(e.str()), std::string("Received message of type ") + c.error);
        }
        EXPECT_TRUE(handler.events.empty()) << c.error;
    }
}

TEST(CDBReaderErrors, UnknownMessageTypesOnEitherSideOfTheRange) {
    const std::pair<uint16_t, const char*> cases[] = {
        {0xb100, "Unknown message type 45312 (0xb100)"},
        {0xb10a, "Unknown message type 45322 (0xb10a)"},
        {0x0000, "Unknown message type 0 (0x0000)"},
    };
    for (const auto& c : cases) {
        RecordingHandler handler;
        FeedInStream in;
        CDBReader reader(handler, in, nullptr);
        in.feed(header(c.first, 0));
        try {
            drain(reader);
            ADD_FAILURE() << c.second << ": no error";
        } catch (const CDBProtocolError& e) {
            EXPECT_STREQ(e.str(), c.second);
        }
    }
}

TEST_F(ReaderFixture, PayloadOf8100IsDeliveredAndOf8101DiscardedWithAWarning) {
    Bytes biggest = header(0xb105, 8103) + Bytes{0x40, 0x01, 3} + cdbtest::patternBytes(8100, 0);
    Bytes tooBig = header(0xb105, 8104) + Bytes{0x40, 0x01, 3} + cdbtest::patternBytes(8101, 0);
    in.feed(biggest + tooBig + kPing5);
    EXPECT_EQ(drain(reader), 3);
    ASSERT_EQ(handler.events.size(), 2u);
    EXPECT_EQ(handler.events[0].substr(0, 35), "ServicePayload 16385 c3 len 8100 00");
    EXPECT_EQ(handler.events[1], "Ping 5");
    int warnings = 0;
    for (const cdbtest::LogLine& line : logger.lines) {
        if (line.level != plat::kLogInfo) continue;
        ++warnings;
        EXPECT_EQ(line.text,
                  "Received ServicePayload with length 8101, but maximum is 8100 - discarding it");
    }
    EXPECT_EQ(warnings, 1);
}

TEST_F(ReaderFixture, ServicesSupportedWithNoEntriesAndWithAnEmptyName) {
    in.feed(header(0xb102, 4) + Bytes{1, 1, 0, 0} + header(0xb102, 11) +
            Bytes{1, 1, 0, 1, 0x40, 7, 3, 4, 5, 6, 0});
    EXPECT_EQ(drain(reader), 2);
    EXPECT_EQ(handler.events,
              (std::vector<std::string>{"ServicesSupported 1.1 count 0:",
                                        "ServicesSupported 1.1 count 1: [16391 3.4 a5 c6 '']"}));
}

// A handler that throws gets its exception out of processMessages; the reader then goes on
// with the next message and never hands the same one over twice.
struct ThrowingHandler : RecordingHandler {
    int throwsLeft = 0;
    void handleServicePayload(uint16_t id, uint8_t ac, size_t length,
                              const uint8_t* data) override {
        RecordingHandler::handleServicePayload(id, ac, length, data);
        if (throwsLeft > 0) {
            --throwsLeft;
            throw plat::Exception("handler failed");
        }
    }
    void handleStartService(uint16_t id, zelcdbsdk::CDBVersion v) override {
        RecordingHandler::handleStartService(id, v);
        if (throwsLeft > 0) {
            --throwsLeft;
            throw rdr::BlockException();  // not to be mistaken for missing input
        }
    }
};

TEST(CDBReaderHandlerFailure, ReaderStaysConsistentAfterAThrowingHandler) {
    Bytes payload =
        cdbtest::written([](zelcdbsdk::CDBWriter& w) { w.sendServicePayload(7, 1, "xyz", 3); });
    Bytes start = header(0xb103, 6) + Bytes{0, 3, 1, 0, 0xaa, 0xbb};
    for (size_t split : {payload.size(), size_t(8)}) {  // in place, then collected
        SCOPED_TRACE(split);
        ThrowingHandler handler;
        handler.throwsLeft = 2;
        FeedInStream in;
        CDBReader reader(handler, in, nullptr);
        in.feed(payload.data(), split);
        // The StartService's surplus bytes and the Ping come only after its handler threw.
        Bytes rest = Bytes(payload.begin() + static_cast<std::ptrdiff_t>(split), payload.end()) +
                     Bytes(start.begin(), start.end() - 2);
        if (split == payload.size()) {
            EXPECT_THROW(drain(reader), plat::Exception);
            in.feed(rest);
        } else {
            EXPECT_EQ(drain(reader), 0);
            in.feed(rest);
            EXPECT_THROW(drain(reader), plat::Exception);
        }
        EXPECT_THROW(drain(reader), rdr::BlockException);
        EXPECT_EQ(drain(reader), 0);
        in.feed(Bytes(start.end() - 2, start.end()) + kPing5);
        EXPECT_EQ(drain(reader), 2);
        EXPECT_EQ(handler.events, (std::vector<std::string>{"ServicePayload 7 c1 len 3 78797a",
                                                            "StartService 3 1.0", "Ping 5"}));
        EXPECT_EQ(in.pos(), payload.size() + start.size() + kPing5.size());
    }
}

}  // namespace
