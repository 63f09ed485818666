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
    ZELCDBSourceServiceCallbacks gaps = kSource;
    gaps.startCallback = nullptr;
    const std::string start = "start 0x0007 ctx 2.1", stop = "stop 0x0007 ctx",
                      payload = "payload 0x0007 ctx abc", response = "response 0x0007 ctx 0x0201";
    const struct {
        const void* table;  // kSink: a sink
        size_t size;
        Lines calls;
    } rows[] = {
        {&kSource, 0, {}},
        {&kSource, entry, {start}},
        {&kSource, entry + entry / 2, {start}},
        {&kSource, 3 * entry, {start, stop, payload}},
        {&kSource, 3 * entry + 64, {start, stop, payload}},
        {nullptr, 3 * entry, {}},
        {&gaps, 3 * entry, {stop, payload}},
        {&kSink, 0, {}},
        {&kSink, entry + 1, {payload}},
        {&kSink, 2 * entry, {payload, response}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(format("%p %zu", row.table, row.size));
        Host host;
        uint32_t size = static_cast<uint32_t>(row.size);
        if (row.table == &kSink) {
            zelcdbsdk::CDBSinkHandler handler(&host, 7, context, &kSink, size);
            drive(handler);
        } else {
            zelcdbsdk::CDBSourceHandler handler(
                &host, context, static_cast<const ZELCDBSourceServiceCallbacks*>(row.table), size);
            handler.setServiceId(7);
            drive(handler);
        }
        Lines expected;
        for (const std::string& call : row.calls) expected.push_back(call + " 0x1234 depth=1");
        EXPECT_EQ(host.calls, expected);
        EXPECT_EQ(host.depth, 0);
    }
}

}  // namespace
