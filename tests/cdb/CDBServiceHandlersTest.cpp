// The plain source and sink handlers: what reaches the application's C callbacks.
#include <gtest/gtest.h>

#include "cdb/CDBServiceHandlers.h"
#include "cdb/CDBTestSupport.h"

namespace {

using namespace cdbtest;

// A table is taken by the size the application gives, in whole entries: an entry only
// partly inside the size is missing, never half a pointer; a null entry is skipped. Each
// row drives start, stop, payload and response, and lists the calls that must come of them
// (a: start, b: stop, c: payload, d: response).
TEST(CDBServiceHandlers, ForwardTheEntriesTheyWereGiven) {
    const size_t entry = sizeof(kSourceCallbacks.startCallback);
    ZELCDBSourceServiceCallbacks gaps = kSourceCallbacks;
    gaps.startCallback = nullptr;
    const Lines all = {"start 0x0007 2.1", "stop 0x0007", "payload 0x0007 616263",
                       "response 0x0007 0x0201"};
    const struct {
        const void* table;  // kSinkCallbacks: a sink
        size_t size;
        std::string calls;
    } rows[] = {
        {&kSourceCallbacks, 0, ""},
        {&kSourceCallbacks, entry + entry / 2, "a"},
        {&kSourceCallbacks, 3 * entry + 64, "abc"},
        {nullptr, 3 * entry, ""},
        {&gaps, 3 * entry, "bc"},
        {&kSinkCallbacks, entry + 1, "c"},
        {&kSinkCallbacks, 2 * entry, "cd"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(format("%p %zu", row.table, row.size));
        Bench b(Role::kClient);
        uint32_t size = static_cast<uint32_t>(row.size);
        std::unique_ptr<CDBService::Handler> handler;
        if (row.table == &kSinkCallbacks) {
            handler.reset(new zelcdbsdk::CDBSinkHandler(&b, 7, &b.calls, &kSinkCallbacks, size));
        } else {
            handler.reset(new zelcdbsdk::CDBSourceHandler(
                &b, &b.calls, static_cast<const ZELCDBSourceServiceCallbacks*>(row.table), size));
            handler->setServiceId(7);
        }
        handler->startService({2, 1});
        handler->stopService();
        handler->servicePayload(reinterpret_cast<const uint8_t*>("abc"), 3);
        handler->serviceResponse(0x0201);
        Lines expected;
        for (char call : row.calls) expected.push_back(all[static_cast<size_t>(call - 'a')]);
        EXPECT_EQ(b.calls, expected);
        EXPECT_EQ(b.depth, 0);
    }
}

}  // namespace
