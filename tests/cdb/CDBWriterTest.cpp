#include <gtest/gtest.h>

#include <functional>

#include "CDBTestSupport.h"
#include "cdb/CDBWriter.h"
#include "rdr/FullyBufferedOutStream.h"

namespace {

using cdbtest::Bytes;
using zelcdbsdk::CDBService;
using zelcdbsdk::CDBWriter;

struct WriterCase {
    const char* name;
    std::function<void(CDBWriter&)> write;
    const char* bytes;  // hex
    const char* line;   // the debug line
};

TEST(CDBWriter, EachMessageByteForByteWithItsDebugLine) {
    static const uint8_t kData[] = {0xde, 0xad, 0x00, 0xbe, 0xef};
    std::vector<CDBService> services = {CDBService(0x4001, {1, 2}, 0x80, 0x11, "ab"),
                                        CDBService(0x4100, {3, 4}, 0x01, 0x22, "")};
    const WriterCase cases[] = {
        {"ServicesRequest",
         [](CDBWriter& w) {
             w.sendServicesRequest({1, 1});
         },
         "b10100020101", "Sending ServicesRequest (endpoint version 1.1)"},
        {"ServicesSupported",
         [&](CDBWriter& w) {
             w.sendServicesSupported({1, 1}, services.data(), 2);
         },
         "b1020014"
         "01010002"
         "400101028011"
         "026162"
         "410003040122"
         "00",
         "Sending ServicesSupported (endpoint version 1.1, 2 services)"},
        {"ServicesSupported none",
         [](CDBWriter& w) {
             w.sendServicesSupported({1, 0}, nullptr, 0);
         },
         "b1020004"
         "01000000",
         "Sending ServicesSupported (endpoint version 1.0, 0 services)"},
        {"StartService",
         [](CDBWriter& w) {
             w.sendStartService(0x4001, {2, 0});
         },
         "b1030004"
         "40010200",
         "Sending StartService, service 16385 (0x4001), version 2.0"},
        {"StopService", [](CDBWriter& w) { w.sendStopService(0x0012); },
         "b1040002"
         "0012",
         "Sending StopService, service 18 (0x0012)"},
        {"ServicePayload",
         [&](CDBWriter& w) { w.sendServicePayload(0x4002, 0x7e, kData, sizeof kData); },
         "b1050008"
         "40027e"
         "dead00beef",
         "Sending ServicePayload, service 16386 (0x4002), length 5"},
        {"ServicePayload empty",
         [](CDBWriter& w) { w.sendServicePayload(0x4002, 0x7e, nullptr, 0); },
         "b1050003"
         "40027e",
         "Sending ServicePayload, service 16386 (0x4002), length 0"},
        {"PingResponse", [](CDBWriter& w) { w.sendPingResponse(0xfffe); },
         "b1060002"
         "fffe",
         "Sending PingResponse, sequence number 65534"},
        {"ServiceResponse", [](CDBWriter& w) { w.sendServiceResponse(0x4003, 0x020a); },
         "b1070004"
         "4003020a",
         "Sending ServiceResponse, service 16387 (0x4003), response 020a"},
        {"Ping", [](CDBWriter& w) { w.sendPing(258); },
         "b1080002"
         "0102",
         "Sending Ping, sequence number 258"},
        {"ByeBye", [](CDBWriter& w) { w.sendByeBye(); }, "b1090000", "Sending ByeBye"},
    };
    for (const WriterCase& c : cases) {
        SCOPED_TRACE(c.name);
        cdbtest::RecordingLogger logger;
        rdr::MemOutStream out(4);  // small, so that every field may cross a regrowth
        CDBWriter writer(out, &logger);
        c.write(writer);
        EXPECT_EQ(cdbtest::hex(out.data(), out.length()), c.bytes);
        ASSERT_EQ(logger.lines.size(), 1u);
        EXPECT_EQ(logger.lines[0].level, plat::kLogDebug);
        EXPECT_EQ(logger.lines[0].facility, "CDBWriter");
        EXPECT_EQ(logger.lines[0].text, c.line);
    }
}

// The writer only appends: what it wrote stays buffered until the owner flushes.
class CountingOutStream : public rdr::FullyBufferedOutStream {
public:
    Bytes taken;
    explicit CountingOutStream(size_t initial) : rdr::FullyBufferedOutStream(initial, 0) {}

protected:
    size_t writeData(const void* data, size_t length) override {
        const uint8_t* bytes = static_cast<const uint8_t*>(data);
        taken.insert(taken.end(), bytes, bytes + length);
        return length;
    }
};

TEST(CDBWriter, AppendsWithoutFlushingAndGrowsForALargePayload) {
    CountingOutStream out(16);
    CDBWriter writer(out, nullptr);
    Bytes data = cdbtest::patternBytes(8100, 1);
    writer.sendPing(1);
    writer.sendServicePayload(0x4001, 9, data.data(), data.size());
    EXPECT_TRUE(out.taken.empty());
    EXPECT_EQ(out.length(), 6u + 7u + 8100u);
    out.flushBuffer();
    Bytes expected = {0xb1, 0x08, 0x00, 0x02, 0x00, 0x01, 0xb1, 0x05, 0x1f, 0xa7, 0x40, 0x01, 0x09};
    expected.insert(expected.end(), data.begin(), data.end());
    EXPECT_EQ(out.taken, expected);
}

}  // namespace
