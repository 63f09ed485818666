// The plain source and sink handlers: what reaches the application's C callbacks.
#include <gtest/gtest.h>

#include "cdb/CDBServiceHandlers.h"
#include "cdb/CDBTestSupport.h"

namespace {

using cdbtest::format;
using zelcdbsdk::CDBService;
using Lines = std::vector<std::string>;

// The endpoint side: counts how deep the thread is in application callbacks, and is the
// context word the callbacks use to record what they were given.
struct Host : zelcdbsdk::CDBEndpointHost {
    int depth = 0;
    Lines calls;
    ZELCDBEndpoint* endpointHandle() override { return reinterpret_cast<ZELCDBEndpoint*>(0x1234); }
    void* endpointContext() override { return this; }
    void enterCallback() override { ++depth; }
    void leaveCallback() override { --depth; }
};

void record(ZELCDBEndpoint* e, void* context, const std::string& call) {
    Host* host = static_cast<Host*>(context);
    host->calls.push_back(
        format("%s %p depth=%d", call.c_str(), static_cast<void*>(e), host->depth));
}

const ZELCDBSourceServiceCallbacks kSource = {
    [](ZELCDBEndpoint* e, void* c, uint16_t id, void* sc, uint8_t major, uint8_t minor) {
        record(e, c, format("start 0x%04x %s %d.%d", id, static_cast<char*>(sc), major, minor));
    },
    [](ZELCDBEndpoint* e, void* c, uint16_t id, void* sc) {
        record(e, c, format("stop 0x%04x %s", id, static_cast<char*>(sc)));
    },
    [](ZELCDBEndpoint* e, void* c, uint16_t id, void* sc, const uint8_t* data, uint32_t n) {
        record(e, c, format("payload 0x%04x %s %.*s", id, static_cast<char*>(sc), int(n), data));
    }};

const ZELCDBSinkCallbacks kSink = {
    [](ZELCDBEndpoint* e, void* c, uint16_t id, void* sc, const uint8_t* data, uint32_t n) {
        record(e, c, format("payload 0x%04x %s %.*s", id, static_cast<char*>(sc), int(n), data));
    },
    [](ZELCDBEndpoint* e, void* c, uint16_t id, void* sc, uint16_t code) {
        record(e, c, format("response 0x%04x %s 0x%04x", id, static_cast<char*>(sc), code));
    }};

void drive(CDBService::Handler& handler) {
    handler.startService({2, 1});
    handler.stopService();
    handler.servicePayload(reinterpret_cast<const uint8_t*>("abc"), 3);
    handler.serviceResponse(0x0201);
}

// A table is taken by the size the application gives, in whole entries: an entry only
// partly inside the size is missing, never half a pointer; a null entry is skipped.
TEST(CDBServiceHandlers, ForwardTheEntriesTheyWereGiven) {
    char context[] = "ctx";
    const size_t entry = sizeof(kSource.startCallback);
    const std::string start = "start 0x0007 ctx 2.1 0x1234 depth=1";
    const std::string stop = "stop 0x0007 ctx 0x1234 depth=1";
    const std::string payload = "payload 0x0007 ctx abc 0x1234 depth=1";
    const std::string response = "response 0x0007 ctx 0x0201 0x1234 depth=1";
    const struct {
        bool sink;
        size_t size;
        Lines calls;
    } rows[] = {
        {false, 0, {}},
        {false, entry, {start}},
        {false, entry + entry / 2, {start}},
        {false, 3 * entry, {start, stop, payload}},
        {false, 3 * entry + 64, {start, stop, payload}},
        {true, 0, {}},
        {true, entry + 1, {payload}},
        {true, 2 * entry, {payload, response}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(format("%s %zu", row.sink ? "sink" : "source", row.size));
        Host host;
        uint32_t size = static_cast<uint32_t>(row.size);
        if (row.sink) {
            zelcdbsdk::CDBSinkHandler handler(&host, 7, context, &kSink, size);
            drive(handler);
        } else {
            zelcdbsdk::CDBSourceHandler handler(&host, context, &kSource, size);
            handler.setServiceId(7);
            drive(handler);
        }
        EXPECT_EQ(host.calls, row.calls);
        EXPECT_EQ(host.depth, 0);
    }
    Host host;
    zelcdbsdk::CDBSourceHandler none(&host, context, nullptr, 12);
    drive(none);
    ZELCDBSourceServiceCallbacks gaps = kSource;
    gaps.startCallback = nullptr;
    zelcdbsdk::CDBSourceHandler withGap(&host, context, &gaps, sizeof gaps);
    drive(withGap);
    EXPECT_EQ(host.calls,
              (Lines{"stop 0x0000 ctx 0x1234 depth=1", "payload 0x0000 ctx abc 0x1234 depth=1"}));
}

}  // namespace
