#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "CDBTestSupport.h"

namespace {

using zelcdbsdk::CDBWriter;

TEST(CDBWriter, EachMessageByteForByteWithItsDebugLine) {
    for (const cdbtest::Sample& sample : cdbtest::samples()) {
        SCOPED_TRACE(sample.line);
        std::string expected = sample.hex;
        expected.erase(std::remove(expected.begin(), expected.end(), ' '), expected.end());
        cdbtest::RecordingLogger logger;
        rdr::MemOutStream out(4);  // small, so that every field may cross a regrowth
        CDBWriter writer(out, &logger);
        sample.write(writer);
        EXPECT_EQ(cdbtest::hex(cdbtest::Bytes(out.data(), out.data() + out.length())), expected);
        ASSERT_EQ(logger.lines.size(), 1u);
        EXPECT_EQ(logger.lines[0].level, plat::kLogDebug);
        EXPECT_EQ(logger.lines[0].facility, "CDBWriter");
        EXPECT_EQ(logger.lines[0].text, "Sending " + sample.line);
    }
}

// 250 services with 255-byte names and one with a name of lastName bytes: 65535 payload
// bytes exactly when lastName is 24.
std::vector<zelcdbsdk::CDBService> directory(size_t lastName) {
    std::vector<zelcdbsdk::CDBService> services(251);
    for (size_t i = 0; i < services.size(); ++i) {
        services[i].id = static_cast<uint16_t>(0x4000 + i);
        services[i].setName(std::string(i < 250 ? 255 : lastName, 'n').c_str());
    }
    return services;
}

// The payload length field is 16 bits. A message that does not fit is refused with the
// library's exception before anything is logged or written; one that just fits goes out
// whole. What an earlier message left in the stream stays as it was.
TEST(CDBWriter, MessagesBeyondTheSixteenBitLengthAreRefusedWithNothingWritten) {
    static const std::vector<uint8_t> kData(65533, 0x5a);
    const struct {
        const char* name;
        size_t payloadLength;  // 0: refused
        std::function<void(CDBWriter&)> write;
    } cases[] = {
        {"directory of 65535 bytes", 65535,
         [](CDBWriter& w) {
             auto services = directory(24);
             w.sendServicesSupported({1, 1}, services.data(), services.size());
         }},
        {"directory of 65536 bytes", 0,
         [](CDBWriter& w) {
             auto services = directory(25);
             w.sendServicesSupported({1, 1}, services.data(), services.size());
         }},
        {"251 names of 255 bytes", 0,
         [](CDBWriter& w) {
             auto services = directory(255);
             w.sendServicesSupported({1, 1}, services.data(), services.size());
         }},
        {"payload data of 65532 bytes", 65535,
         [](CDBWriter& w) { w.sendServicePayload(0x4001, 0, kData.data(), 65532); }},
        {"payload data of 65533 bytes", 0,
         [](CDBWriter& w) { w.sendServicePayload(0x4001, 0, kData.data(), 65533); }},
        {"payload data of SIZE_MAX bytes", 0,
         [](CDBWriter& w) { w.sendServicePayload(0x4001, 0, kData.data(), SIZE_MAX); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        cdbtest::RecordingLogger logger;
        rdr::MemOutStream out(4);
        CDBWriter writer(out, &logger);
        writer.sendPing(7);
        const cdbtest::Bytes before(out.data(), out.data() + out.length());
        if (c.payloadLength == 0) {
            EXPECT_THROW(c.write(writer), CDBWriter::MessageTooLong);
            EXPECT_EQ(cdbtest::Bytes(out.data(), out.data() + out.length()), before);
            EXPECT_EQ(logger.lines.size(), 1u);  // the Ping's line only
            continue;
        }
        c.write(writer);
        ASSERT_EQ(out.length(), before.size() + 4 + c.payloadLength);
        EXPECT_EQ(cdbtest::hex(cdbtest::Bytes(out.data() + before.size() + 2,
                                              out.data() + before.size() + 4)),
                  "ffff");
    }
    EXPECT_STREQ(CDBWriter::MessageTooLong(65766).str(),
                 "CDB message too long: 65766 payload bytes, at most 65535");
}

}  // namespace
