// Starting, stopping and destroying endpoints in every state and from several threads at
// once: nothing hangs, nothing is joined twice, nothing is left behind.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <future>

#include "sdk/EndpointHarness.h"

namespace {

using namespace sdktest;

#ifdef ZEL_SLOW_TARGET
constexpr int kSlowdown = 10;
#else
constexpr int kSlowdown = 1;
#endif

// A call that hangs fails the test and ends the program, which could not get its thread back.
ZELCDBError within3s(std::function<ZELCDBError()> fn) {
    auto done = std::async(std::launch::async, std::move(fn));
    if (done.wait_for(std::chrono::seconds(3)) == std::future_status::ready) return done.get();
    ADD_FAILURE() << "did not return within 3 s";
    std::fflush(nullptr);
    std::_Exit(1);
}

class EndpointLifecycle : public ::testing::Test {
protected:
    plat::ManualClock clock;
    plat::ScopedClock useClock{&clock};
};

// Every state a stop can find; each case is run once stopping then destroying, and once
// destroying a running endpoint directly. Status 3 is reported once.
TEST_F(EndpointLifecycle, StopAndDestroyReturnPromptlyInEveryState) {
    // 0 never connected, 1 connect refused, 2 connecting to a peer that does not answer,
    // 3 connected client, 4 connected server, 5 client whose peer is gone.
    for (int state = 0; state < 6; ++state) {
        for (bool stopFirst : {true, false}) {
            SCOPED_TRACE(format("state %d, %s", state, stopFirst ? "stop" : "destroy"));
            SilentPeer silent(0);
            Pair pair(&clock);
            App own(state == 0 ? ZELCDBEndpointModeServer : ZELCDBEndpointModeClient,
                    state == 2 ? silent.url() : freeUrl(), &clock);
            App& app = state == 4 ? pair.server : state >= 3 ? pair.client : own;
            if (state < 3) {
                ASSERT_EQ(app.start(), ZELCDBErrorNone);
                ASSERT_TRUE(app.waitFor(state == 1 ? "status 3 5" : "status 1 0"));
            } else {
                ASSERT_TRUE(pair.connect());
            }
            if (state == 5) {
                ASSERT_EQ(pair.server.destroy(), ZELCDBErrorNone);
                ASSERT_TRUE(app.waitFor("status 3 *"));
            }
            if (stopFirst) {
                // A thread that ended by itself may still be reporting its end.
                ZELCDBError stopped = within3s([&] { return app.stop(); });
                EXPECT_TRUE(
                    stopped == ZELCDBErrorNone ||
                    (stopped == ZELCDBErrorIllegalWhileNotRunning && (state == 1 || state == 5)));
            }
            EXPECT_EQ(within3s([&] { return app.destroy(); }), ZELCDBErrorNone);
            EXPECT_EQ(app.count("status 3 *"), 1);
        }
    }
}

// What ends the thread by itself reaches the application once: one error line, then status 3
// with the code the exception stands for. A peer that says nothing first lets the
// ServicesRequest time out, which the application hears too.
TEST_F(EndpointLifecycle, ThreadEndReportsWhatEndedIt) {
    const uint8_t unknownType[4] = {0x00, 0x01, 0x00, 0x00};
    const struct {
        const char* url;       // null: a silent peer's, which closes after writing `bytes`
        const uint8_t* bytes;  // null: nothing
        ZELCDBError error;
        const char* line;
    } cases[] = {
        {"", nullptr, ZELCDBErrorNetworkError,
         "Caught exception: Connection error: Connection refused (111)"},
        {"cdb://example.invalid:1", nullptr, ZELCDBErrorFailed,
         "Caught exception: Invalid CDB URL cdb://example.invalid:1"},
        {nullptr, unknownType, ZELCDBErrorInvalidProtocol,
         "Caught exception: Unknown message type 1 (0x0001)"},
        {nullptr, nullptr, ZELCDBErrorFailed, "Caught exception: Connection lost"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        SilentPeer peer;
        App app(ZELCDBEndpointModeClient, !c.url ? peer.url() : *c.url ? c.url : freeUrl(), &clock);
        ASSERT_EQ(app.start(), ZELCDBErrorNone);
        if (c.url == nullptr) {
            ASSERT_TRUE(peer.accept());
            ASSERT_TRUE(app.waitFor("status 2 0"));
            // The loop may not have armed its timer when the first step is taken.
            for (int i = 0; i < 20 && app.count("timeout") == 0; ++i) {
                clock.advanceMs(5000);
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            }
            EXPECT_EQ(app.count("timeout"), 1);
            if (c.bytes) {
                ASSERT_EQ(::write(peer.accepted, c.bytes, 4), 4);
            }
            ::shutdown(peer.accepted, SHUT_WR);
        }
        ASSERT_TRUE(app.waitFor(format("status 3 %d", c.error)));
        EXPECT_EQ(app.all("log CDBEndpoint/0 *"), Lines{format("log CDBEndpoint/0 %s", c.line)});
    }
}

// An application that restarts when it sees status 3 must not have to retry: a Start made
// while the thread is still reporting its end waits for it and starts a new one.
TEST_F(EndpointLifecycle, StartWhileTheThreadEndsOnItsOwnStartsANewOne) {
    App app(ZELCDBEndpointModeClient, freeUrl(), &clock);
    app.setHook([](App& a, const std::string& line) {
        if (!matches(line, "status 3 *")) return;
        // From inside the status callback itself a start is still refused. The pause gives
        // the Start below time to find the thread still running.
        a.add(format("start from status 3: %d", a.start()));
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    });
    ASSERT_EQ(app.start(), ZELCDBErrorNone);
    ASSERT_TRUE(app.waitFor("start from status 3: 6"));
    EXPECT_EQ(app.start(), ZELCDBErrorNone);
    EXPECT_TRUE(app.waitFor("status 1 0", 2));
}

// Application threads call every entry, starts and stops among them, on a server and a
// client: every thread is joined once, and each call returns one of its documented codes;
// TSan watches the rest. Every start makes a thread, a wake-up pipe and a socket: once the
// endpoints are gone, none of them is left.
TEST(EndpointSoak, CallsFromEightThreadsWhileTheyStartAndStop) {
    // Counted after a first cycle, which may load what the library needs once.
    App(ZELCDBEndpointModeClient, freeUrl()).start();
    const int threads = threadCount(), descriptors = countEntries("/proc/self/fd");
    Pair pair;
    ASSERT_EQ(pair.server.addSource("echo"), 0x4001);
    ASSERT_EQ(pair.client.addSource("up"), 0x0001);
    const ZELCDBError kNone = ZELCDBErrorNone, kRunning = ZELCDBErrorIllegalWhileRunning;
    const std::vector<ZELCDBError> kPost = {kNone, ZELCDBErrorIllegalWhileNotRunning};
    std::atomic<int> unexpected{0};
    std::vector<std::thread> workers;
    for (int w = 0; w < 8; ++w) {
        workers.emplace_back([&, w] {
            App& app = w % 2 ? pair.client : pair.server;
            uint16_t own = w % 2 ? 0x0001 : 0x4001, peer = 0x4002 - own;
            ZELCDBService service = {0, "more", 1, 0, 0, 0};
            const std::pair<std::function<ZELCDBError()>, std::vector<ZELCDBError>> calls[] = {
                {[&] { return app.addSink(peer); }, kPost},
                {[&] { return app.send(own, "abc"); }, kPost},
                {[&] { return app.send(peer, "abc"); }, kPost},
                {[&] { return app.respond(own, 1); }, kPost},
                {[&] { return app.startService(peer); }, kPost},
                {[&] { return app.stopService(peer); }, kPost},
                {[&] { return app.stop(); }, kPost},
                {[&] { return app.start(); }, {kNone, kRunning}},
                {[&] {
                     return api().endpointAddSourceService(app.ep, nullptr, &service,
                                                           sizeof service, nullptr, 0);
                 },
                 {kNone, kRunning, ZELCDBErrorFailed}},
            };
            for (int i = 0; i < 900 / kSlowdown; ++i) {
                const auto& call = calls[(w + i) % 9];
                ZELCDBError r = call.first();
                if (std::find(call.second.begin(), call.second.end(), r) == call.second.end() &&
                    unexpected++ < 10)
                    ADD_FAILURE() << "call " << (w + i) % 9 << " returned " << r;
            }
        });
    }
    for (auto& t : workers) t.join();
    EXPECT_EQ(unexpected, 0);
    pair.client.destroy();
    pair.server.destroy();
    // At most as many threads: one of an earlier test (or of qemu-user itself) may still have
    // been ending when the baseline was taken, and a joined one may still be leaving.
    EXPECT_LE(threadCount(threads), threads);
    EXPECT_EQ(countEntries("/proc/self/fd"), descriptors);
}

}  // namespace
