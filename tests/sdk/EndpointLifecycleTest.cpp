// Starting, stopping and destroying endpoints in every state and from several threads at
// once: nothing hangs, nothing is joined twice, nothing is left behind.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <future>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "sdk/EndpointHarness.h"

namespace {

using namespace sdktest;

#ifdef ZEL_SLOW_TARGET
constexpr int kSlowdown = 10;
#else
constexpr int kSlowdown = 1;
#endif

bool oneOf(ZELCDBError result, std::initializer_list<ZELCDBError> allowed) {
    for (ZELCDBError a : allowed) {
        if (result == a) return true;
    }
    return false;
}

// Runs fn on another thread and gives it `bound` to finish. A call that hangs fails the
// test and ends the program, which could not get its thread back anyway.
ZELCDBError within(std::chrono::milliseconds bound, const char* what,
                   std::function<ZELCDBError()> fn) {
    auto done = std::async(std::launch::async, std::move(fn));
    if (done.wait_for(bound) != std::future_status::ready) {
        ADD_FAILURE() << what << " did not return within " << bound.count() << " ms";
        std::fflush(nullptr);
        std::_Exit(1);
    }
    return done.get();
}

constexpr std::chrono::milliseconds kPrompt(3000);

class EndpointLifecycle : public ::testing::Test {
protected:
    plat::ManualClock clock;
    plat::ScopedClock useClock{&clock};
};

// Every state a stop can find; each case is run once stopping then destroying, and once
// destroying a running endpoint directly.
TEST_F(EndpointLifecycle, StopAndDestroyReturnPromptlyInEveryState) {
    // 0 never connected, 1 connect refused, 2 connecting to a peer that does not answer,
    // 3 connected client, 4 connected server, 5 client whose peer is gone.
    for (int state = 0; state < 6; ++state) {
        for (bool stopFirst : {true, false}) {
            SCOPED_TRACE(format("state %d, %s", state, stopFirst ? "stop" : "destroy"));
            SilentPeer silent(0);
            silent.fillBacklog();
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
                ASSERT_TRUE(app.events.waitForPrefix("status 3 "));
            }
            if (stopFirst) {
                ZELCDBError stopped = within(kPrompt, "stop", [&] { return app.stop(); });
                EXPECT_TRUE(oneOf(stopped, {ZELCDBErrorNone, ZELCDBErrorIllegalWhileNotRunning}));
            }
            EXPECT_EQ(within(kPrompt, "destroy", [&] { return app.destroy(); }), ZELCDBErrorNone);
            EXPECT_EQ(app.events.startingWith("status 3 ").size(), 1u);
        }
    }
}

// What ends the thread by itself reaches the application once: one error line, then status 3
// with the code the exception stands for.
TEST_F(EndpointLifecycle, ThreadEndReportsWhatEndedIt) {
    const uint8_t unknownType[4] = {0x00, 0x01, 0x00, 0x00};
    const struct Case {
        const char* what;
        const char* url;       // null: a silent peer's
        const uint8_t* bytes;  // what the peer writes once connected
        enum { kStay, kFinish, kReset } end;
        ZELCDBError error;
        const char* line;
    } cases[] = {
        {"refused", "", nullptr, Case::kStay, ZELCDBErrorNetworkError,
         "Caught exception: Connection error: Connection refused (111)"},
        {"unknown host", "cdb://example.invalid:1", nullptr, Case::kStay, ZELCDBErrorFailed,
         "Caught exception: Invalid CDB URL cdb://example.invalid:1"},
        {"malformed message", nullptr, unknownType, Case::kStay, ZELCDBErrorInvalidProtocol,
         "Caught exception: Unknown message type 1 (0x0001)"},
        {"peer closes", nullptr, nullptr, Case::kFinish, ZELCDBErrorFailed,
         "Caught exception: Connection lost"},
        {"peer resets", nullptr, nullptr, Case::kReset, ZELCDBErrorNetworkError,
         "Caught exception: Network error: Connection reset by peer (104)"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        SilentPeer peer;
        std::string url = c.url == nullptr ? peer.url() : *c.url ? c.url : freeUrl();
        App app(ZELCDBEndpointModeClient, url, &clock);
        ASSERT_EQ(app.start(), ZELCDBErrorNone);
        if (c.url == nullptr) {
            ASSERT_TRUE(peer.accept());
            ASSERT_TRUE(app.waitFor("status 2 0"));
            if (c.bytes) {
                ASSERT_EQ(::write(peer.accepted, c.bytes, 4), 4);
            }
            if (c.end == Case::kFinish) ::shutdown(peer.accepted, SHUT_WR);
            // Closed with the ServicesRequest unread, the connection is reset.
            pollfd readable = {peer.accepted, POLLIN, 0};
            if (c.end == Case::kReset && ::poll(&readable, 1, 10000) == 1) peer.hangUp();
        }
        ASSERT_TRUE(app.waitFor(format("status 3 %d", c.error)));
        EXPECT_EQ(app.events.count(format("log CDBEndpoint/0 %s", c.line)), 1);
        EXPECT_EQ(app.events.startingWith("log CDBEndpoint/0 ").size(), 1u);
    }
}

// Timer lines are logged through the thread's current logger, which the endpoint thread
// must have set to the endpoint.
TEST_F(EndpointLifecycle, TimerLinesReachTheLogCallback) {
    Pair pair(&clock);
    ASSERT_TRUE(pair.connect());
    clock.advanceMs(5 * 60 * 1000);
    EXPECT_TRUE(
        pair.client.waitFor("log TimerManager/30 Time has jumped forwards - restarting timers"));
}

// A peer that accepted the connection and then says nothing gets its documented 5 s to
// answer the ByeBye, in virtual time, and not a moment less.
TEST_F(EndpointLifecycle, SilentPeerGetsItsFiveSecondsForTheByeBye) {
    SilentPeer peer;
    App app(ZELCDBEndpointModeClient, peer.url(), &clock);
    ASSERT_EQ(app.start(), ZELCDBErrorNone);
    ASSERT_TRUE(peer.accept());
    ASSERT_TRUE(app.waitFor("status 2 0"));
    auto stopped = std::async(std::launch::async, [&] { return app.stop(); });
    ASSERT_TRUE(app.waitFor("log CDBWriter/100 Sending ByeBye"));
    // Queued behind the stop, so its line shows once the ByeBye timer has been started.
    ASSERT_EQ(app.startService(0x7777), ZELCDBErrorNone);
    ASSERT_TRUE(app.waitFor(
        "log CDBSession/0 Failed to start peer service 30583 (0x7777) - service does not exist"));
    clock.advanceMs(4999);
    EXPECT_EQ(stopped.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    clock.advanceMs(1);
    ASSERT_EQ(stopped.wait_for(kPrompt), std::future_status::ready);
    EXPECT_EQ(stopped.get(), ZELCDBErrorNone);
    EXPECT_EQ(app.events.count("log CDBSession/10 Warning: ByeBye timer expired without "
                               "receiving response from CDB server"),
              1);
    EXPECT_EQ(app.events.count("status 3 0"), 1);
}

// An application that restarts when it sees status 3 must not have to retry: a Start made
// while the thread is still reporting its end waits for it and starts a new one.
TEST_F(EndpointLifecycle, StartWhileTheThreadEndsOnItsOwnStartsANewOne) {
    App app(ZELCDBEndpointModeClient, freeUrl(), &clock);
    std::mutex mutex;
    std::condition_variable changed;
    bool inside = false, starting = false;
    ScopedHook hook(app, [&](App& a, const std::string& line) {
        if (line.compare(0, 9, "status 3 ") != 0) return;
        // From inside the status callback itself a start is still refused.
        a.events.add(format("start from status 3: %d", a.start()));
        std::unique_lock<std::mutex> lock(mutex);
        if (inside) return;
        inside = true;
        changed.notify_all();
        changed.wait_for(lock, kPatience, [&] { return starting; });
        lock.unlock();
        // Give the Start below time to find the thread still running.
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    });
    ASSERT_EQ(app.start(), ZELCDBErrorNone);
    {
        std::unique_lock<std::mutex> lock(mutex);
        ASSERT_TRUE(changed.wait_for(lock, kPatience, [&] { return inside; }));
        starting = true;
        changed.notify_all();
    }
    EXPECT_EQ(app.start(), ZELCDBErrorNone);
    EXPECT_TRUE(app.waitFor("status 1 0", 2));
    EXPECT_TRUE(app.waitFor("start from status 3: 6", 2));
}

TEST_F(EndpointLifecycle, StopFromTwoThreadsAtOnceJoinsOnce) {
    App app(ZELCDBEndpointModeServer, freeUrl(), &clock);
    int baseline = threadCount();
    for (int round = 0; round < 20; ++round) {
        ASSERT_EQ(app.start(), ZELCDBErrorNone);
        std::atomic<int> ready{0};
        auto stop = [&] {
            ++ready;
            while (ready < 2) {
            }
            return app.stop();
        };
        auto other = std::async(std::launch::async, stop);
        ZELCDBError first = within(kPrompt, "stop", stop);
        ZELCDBError second = within(kPrompt, "the other stop", [&] { return other.get(); });
        EXPECT_TRUE(oneOf(first, {ZELCDBErrorNone, ZELCDBErrorIllegalWhileNotRunning}));
        EXPECT_TRUE(oneOf(second, {ZELCDBErrorNone, ZELCDBErrorIllegalWhileNotRunning}));
        EXPECT_TRUE(first == ZELCDBErrorNone || second == ZELCDBErrorNone);
    }
    EXPECT_LE(threadCount(baseline), baseline);
}

// The endpoint thread must never wait for what a stopping thread holds: a Stop made from a
// callback while another thread is stopping (and joining) the endpoint just returns.
TEST_F(EndpointLifecycle, StopFromACallbackWhileAnotherThreadStops) {
    Pair pair(&clock);
    pair.client.setHook([](App& app, const std::string& line) {
        if (line == "log CDBWriter/100 Sending ByeBye") {
            app.events.add(format("inner stop %d", app.stop()));
        }
    });
    ASSERT_TRUE(pair.connect());
    EXPECT_EQ(within(kPrompt, "stop", [&] { return pair.client.stop(); }), ZELCDBErrorNone);
    EXPECT_EQ(pair.client.events.count("inner stop 0"), 1);
}

// Each cycle creates a thread, a wake-up pipe and a socket; all of them must go.
TEST(EndpointSoak, CyclesLeaveNoThreadOrDescriptorBehind) {
    const int cycles = 1000 / kSlowdown;
    std::string serverUrl = freeUrl();
    std::string refusedUrl = freeUrl();
    int threads = 0, descriptors = 0;
    for (int i = -1; i < cycles; ++i) {
        // Counted after a first cycle, which may load what the library needs once.
        if (i == 0) {
            threads = threadCount();
            descriptors = descriptorCount();
        }
        // A listening server is stopped; a client whose connect is refused has ended by itself.
        bool server = i % 2 != 0;
        App app(server ? ZELCDBEndpointModeServer : ZELCDBEndpointModeClient,
                server ? serverUrl : refusedUrl);
        ASSERT_EQ(app.created, ZELCDBErrorNone);
        ASSERT_EQ(app.start(), ZELCDBErrorNone);
        ZELCDBError stopped = app.stop();
        ASSERT_TRUE(server ? stopped == ZELCDBErrorNone
                           : oneOf(stopped, {ZELCDBErrorNone, ZELCDBErrorIllegalWhileNotRunning}))
            << "cycle " << i << ": " << stopped;
        ASSERT_EQ(app.destroy(), ZELCDBErrorNone);
    }
    // At most as many: a thread of an earlier test (or of qemu-user itself) may still have
    // been ending when the baseline was taken, and a joined thread may still be leaving.
    EXPECT_LE(threadCount(threads), threads);
    EXPECT_EQ(descriptorCount(), descriptors);
}

// Application threads call every entry while another thread keeps starting and stopping
// both endpoints. Each call must return one of its documented codes; TSan watches the rest.
// The callers make a fixed number of calls: on a loaded machine they would starve the
// starter, and a soak bounded by its cycles would take minutes.
TEST(EndpointSoak, CallsFromEightThreadsWhileAnotherStartsAndStops) {
    Pair pair;
    App& server = pair.server;
    App& client = pair.client;
    ASSERT_EQ(server.addSource("echo"), 0x4001);
    ASSERT_EQ(client.addSource("up"), 0x0001);
    const ZELCDBError kNone = ZELCDBErrorNone;
    const ZELCDBError kNotRunning = ZELCDBErrorIllegalWhileNotRunning;
    const ZELCDBError kRunning = ZELCDBErrorIllegalWhileRunning;

    std::atomic<int> working{8};
    std::atomic<int> unexpected{0};
    auto check = [&](ZELCDBError r, std::initializer_list<ZELCDBError> allowed, const char* what) {
        if (!oneOf(r, allowed) && unexpected++ < 10) ADD_FAILURE() << what << " returned " << r;
    };
    std::thread starter([&] {
        for (int cycle = 0; cycle < 2 || working > 0; ++cycle) {
            check(server.start(), {kNone, kRunning}, "server start");
            check(client.start(), {kNone, kRunning}, "client start");
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            check(client.stop(), {kNone, kNotRunning}, "client stop");
            check(server.stop(), {kNone, kNotRunning}, "server stop");
        }
    });
    std::vector<std::thread> workers;
    for (int w = 0; w < 8; ++w) {
        workers.emplace_back([&, w] {
            App& app = w % 2 ? client : server;
            uint16_t own = w % 2 ? 0x0001 : 0x4001;
            uint16_t peer = w % 2 ? 0x4001 : 0x0001;
            ZELCDBService service = {0, "more", 1, 0, 0, 0};
            const std::function<void(int)> calls[] = {
                [&](int) {
                    check(app.addSink(peer), {kNone, kNotRunning}, "add sink");
                },
                [&](int) {
                    check(app.send(own, "abc"), {kNone, kNotRunning}, "payload");
                },
                [&](int) {
                    check(app.send(peer, "abc"), {kNone, kNotRunning}, "payload to peer");
                },
                [&](int) {
                    check(app.respond(own, 0x0001), {kNone, kNotRunning}, "response");
                },
                [&](int) {
                    check(app.startService(peer), {kNone, kNotRunning}, "start service");
                },
                [&](int) {
                    check(app.stopService(peer), {kNone, kNotRunning}, "stop service");
                },
                [&](int) {
                    check(api().endpointAddSourceService(app.ep, nullptr, &service, sizeof service,
                                                         nullptr, 0),
                          {kNone, kRunning, ZELCDBErrorFailed}, "add source");
                },
                [&](int) {
                    check(api().endpointGetContext(app.ep) == &app ? kNone : ZELCDBErrorFailed,
                          {kNone}, "get context");
                },
                [&](int i) {
                    check(i % 2 ? app.stop() : app.start(), {kNone, kRunning, kNotRunning},
                          "start or stop");
                },
            };
            for (int i = 0; i < 2000 / kSlowdown; ++i) calls[(i + w) % 9](i);
            --working;
        });
    }
    starter.join();
    for (auto& t : workers) t.join();
    EXPECT_EQ(unexpected, 0);
}

}  // namespace
