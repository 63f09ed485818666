// The plain source and sink handlers: what reaches the application's C callbacks.
#include <gtest/gtest.h>

#include "cdb/CDBServiceHandlers.h"
#include "cdb/CDBTestSupport.h"

namespace {

using cdbtest::format;
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

void record(ZELCDBEndpoint* e, void* context, uint16_t id, void* sc, const std::string& call) {
    Host* host = static_cast<Host*>(context);
    host->calls.push_back(format("%s 0x%04x %s %p depth=%d", call.c_str(), id,
                                 static_cast<char*>(sc), static_cast<void*>(e), host->depth));
}

const ZELCDBSourceServiceCallbacks kSource = {
    [](ZELCDBEndpoint* e, void* c, uint16_t id, void* sc, uint8_t major, uint8_t minor) {
        record(e, c, id, sc, format("start %d.%d", major, minor));
    },
    [](ZELCDBEndpoint* e, void* c, uint16_t id, void* sc) { record(e, c, id, sc, "stop"); },
    [](ZELCDBEndpoint* e, void* c, uint16_t id, void* sc, const uint8_t* data, uint32_t n) {
        record(e, c, id, sc, format("payload %.*s", int(n), data));
    }};
const ZELCDBSinkCallbacks kSink = {
    kSource.payloadCallback, [](ZELCDBEndpoint* e, void* c, uint16_t id, void* sc, uint16_t code) {
        record(e, c, id, sc, format("response 0x%04x", code));
    }};

// A table is taken by the size the application gives, in whole entries: an entry only
// partly inside the size is missing, never half a pointer; a null entry is skipped. Each
// row drives start, stop, payload and response, and lists the calls that must come of them
// (a: start, b: stop, c: payload, d: response).
TEST(CDBServiceHandlers, ForwardTheEntriesTheyWereGiven) {
    char context[] = "ctx";
    const size_t entry = sizeof(kSource.startCallback);
    ZELCDBSourceServiceCallbacks gaps = kSource;
    gaps.startCallback = nullptr;
    const Lines all = {"start 2.1", "stop", "payload abc", "response 0x0201"};
    const struct {
        const void* table;  // kSink: a sink
        size_t size;
        std::string calls;
    } rows[] = {
        {&kSource, 0, ""},
        {&kSource, entry + entry / 2, "a"},
        {&kSource, 3 * entry, "abc"},
        {&kSource, 3 * entry + 64, "abc"},
        {nullptr, 3 * entry, ""},
        {&gaps, 3 * entry, "bc"},
        {&kSink, entry + 1, "c"},
        {&kSink, 2 * entry, "cd"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(format("%p %zu", row.table, row.size));
        Host host;
        uint32_t size = static_cast<uint32_t>(row.size);
        std::unique_ptr<zelcdbsdk::CDBService::Handler> handler;
        if (row.table == &kSink) {
            handler.reset(new zelcdbsdk::CDBSinkHandler(&host, 7, context, &kSink, size));
        } else {
            auto* source = new zelcdbsdk::CDBSourceHandler(
                &host, context, static_cast<const ZELCDBSourceServiceCallbacks*>(row.table), size);
            source->setServiceId(7);
            handler.reset(source);
        }
        handler->startService({2, 1});
        handler->stopService();
        handler->servicePayload(reinterpret_cast<const uint8_t*>("abc"), 3);
        handler->serviceResponse(0x0201);
        Lines expected;
        for (char call : row.calls)
            expected.push_back(format("%s 0x0007 ctx 0x1234 depth=1", all[call - 'a'].c_str()));
        EXPECT_EQ(host.calls, expected);
        EXPECT_EQ(host.depth, 0);
    }
}

}  // namespace
