// End-to-end figures of the SDK next to the raw-TCP floor and the ZeroMQ peer of the same
// shape, measured in the same run: SBP Get round trips, a plain CDB payload stream, heap
// allocations per message, the idle cost of a connected pair, 256 pairs in one process, and
// the library's footprint. Prints one table
// and the same figures as JSON (tools/bench.sh runs it after the codec benchmark).
//
//   e2e_bench [--quick] [--verbose] [--rounds=N] [--idle-seconds=S] [--pairs=N] [--json=PATH]
//             [--so=LABEL=PATH]...
//
// --so names a stripped copy of the shared object whose size goes into the table (the
// label says for which target: x86_64, arm32).
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "HeapCounter.h"
#include "Measure.h"
#include "Report.h"
#include "SdkPair.h"
#include "TcpFloor.h"
#include "ZmqPeer.h"
#include "zelcdbsdk.h"

namespace {

using namespace e2e;

// The SDK, the floor and the peer are measured in many short alternating rounds (floor, SDK,
// peer, floor, SDK, peer, ...), each ratio taken within a round: on a shared machine the
// floor itself moves severalfold from minute to minute, and only figures taken side by side
// compare.
struct Options {
    int rounds = 15;
    int samples = 1000;  // timed round trips per round and value size
    int closedLoopCount = 1000;
    double streamSeconds = 0.2;
    double idleSeconds = 10;
    int pairs = 256;
    int getsEach = 100;
    std::string jsonPath;
    std::vector<std::pair<std::string, std::string>> sharedObjects;  // label, path
};

// Wire sizes of one SBP Get and its answer, so that the floor moves the same bytes: a CDB
// header (4) and ServicePayload header (3) around the SBP packet, which is 20 bytes without
// data and 16 plus the data with it.
constexpr size_t kGetWireSize = 4 + 3 + 20;
size_t answerWireSize(size_t value) {
    return 4 + 3 + 16 + value;
}
// A ServicePayload write of the floor: the 8100 bytes and a 4-byte header.
constexpr size_t kStreamWriteSize = 8104;
constexpr int kStreamWindow = 2 * SdkPair::kAckEvery;

bool parse(int argc, char** argv, Options* options) {
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        auto value = [&](const char* name) -> const char* {
            size_t length = std::strlen(name);
            return arg.compare(0, length, name) == 0 ? argv[i] + length : nullptr;
        };
        if (arg == "--verbose") {
            SdkPair::setVerbose(true);
        } else if (arg == "--quick") {
            options->rounds = 5;
            options->samples = 300;
            options->closedLoopCount = 300;
            options->streamSeconds = 0.1;
            options->idleSeconds = 2;
            options->pairs = 32;
            options->getsEach = 20;
        } else if (const char* v = value("--rounds=")) {
            options->rounds = std::max(1, std::atoi(v));
        } else if (const char* v = value("--idle-seconds=")) {
            options->idleSeconds = std::atof(v);
        } else if (const char* v = value("--pairs=")) {
            options->pairs = std::max(1, std::atoi(v));
        } else if (const char* v = value("--json=")) {
            options->jsonPath = v;
        } else if (const char* v = value("--so=")) {
            const char* eq = std::strchr(v, '=');
            if (!eq) return false;
            options->sharedObjects.emplace_back(std::string(v, eq), eq + 1);
        } else {
            return false;
        }
    }
    return true;
}

std::string firstLine(const char* path, const char* prefix) {
    std::ifstream file(path);
    std::string line;
    while (std::getline(file, line)) {
        if (line.compare(0, std::strlen(prefix), prefix) == 0) {
            size_t colon = line.find(':');
            return colon == std::string::npos ? line : line.substr(colon + 2);
        }
    }
    return "unknown";
}

std::string loadText() {
    double load[3] = {0, 0, 0};
    getloadavg(load, 3);
    char text[64];
    std::snprintf(text, sizeof text, "%.2f %.2f %.2f", load[0], load[1], load[2]);
    return text;
}

void describeMachine(Report& report) {
    utsname names{};
    uname(&names);
    char date[32];
    time_t now = time(nullptr);
    strftime(date, sizeof date, "%Y-%m-%d %H:%M UTC", gmtime(&now));
    report.note("date", date);
    report.note("cpu", firstLine("/proc/cpuinfo", "model name"));
    report.note("cores", std::to_string(std::thread::hardware_concurrency()));
    report.note("kernel", std::string(names.sysname) + " " + names.release + " " + names.machine);
    report.note("compiler", __VERSION__);
    report.note("load before", loadText());
}

void raiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

void fail(const char* what, const std::string& detail = "") {
    std::fprintf(stderr, "e2e_bench: %s%s%s\n", what, detail.empty() ? "" : ": ", detail.c_str());
    std::exit(1);
}

// ---- 5. Footprint -------------------------------------------------------------------------

// Heap bytes an idle connected pair holds, counted from before its endpoints exist (the
// harness's own buffers are made first) until it has sat connected for a moment.
double heapPerIdleEndpoint(const ZELCDBSDK& sdk) {
    auto pair = std::make_unique<SdkPair>(sdk, 8, false);
    heap::setCounting(true);
    int64_t before = heap::liveBytes();
    if (!pair->connect(20)) fail("footprint pair did not connect", pair->problems());
    usleep(300000);
    int64_t held = heap::liveBytes() - before;
    heap::setCounting(false);
    return static_cast<double>(held) / 2;
}

void reportSizes(const Options& options, Report& report) {
    for (const auto& object : options.sharedObjects) {
        struct stat info {};
        if (stat(object.second.c_str(), &info) != 0) fail("cannot stat", object.second);
        bool arm32 = object.first == "arm32";
        report.addSdkOnly(
            "so_stripped_" + object.first, "libzelcdbsdk.so.1 stripped, " + object.first, "KB",
            static_cast<double>(info.st_size) / 1024, arm32 ? Goal::valueBelow(300) : Goal::none());
    }
}

// ---- 1. Get round trips -------------------------------------------------------------------

double ratio(double sdk, double baseline) {
    return baseline > 0 ? sdk / baseline : 0;
}

void roundTrips(const Options& options, SdkPair& pair, ZmqPeer* peer, uint32_t value,
                Report& report) {
    const std::string size = value == 8 ? "8 B" : "1 KB";
    const std::string key = value == 8 ? "8b" : "1kb";
    pair.setValueSize(value);
    if (peer) peer->setResponseSize(answerWireSize(value));
    std::vector<int64_t> sdkSamples, tcpSamples, zmqSamples;
    std::vector<double> p50Tcp, p99Tcp, p50Zmq, p99Zmq, loopTcp;
    int64_t sdkLoopCount = 0, sdkLoopNs = 0, tcpCount = 0, tcpNs = 0;
    const int warmup = std::max(10, options.samples / 10);
    for (int i = 0; i < warmup; ++i) {
        if (pair.timedGet() < 0) fail("Get went unanswered", pair.problems());
    }
    for (int round = 0; round < options.rounds; ++round) {
        PingPongFigures floor =
            tcpPingPong(kGetWireSize, answerWireSize(value), warmup, options.samples);
        std::vector<int64_t> sdk;
        for (int i = 0; i < options.samples; ++i) {
            int64_t roundTrip = pair.timedGet();
            if (roundTrip < 0) fail("Get went unanswered", pair.problems());
            sdk.push_back(roundTrip);
        }
        int64_t elapsed = pair.closedLoop(options.closedLoopCount, 60);
        if (elapsed < 0) fail("closed loop did not finish", pair.problems());
        std::vector<int64_t> zmq;
        if (peer) {
            zmq = peer->roundTrips(warmup, options.samples);
            if (zmq.empty()) fail("ZeroMQ round trips failed");
        }

        double floorRate =
            static_cast<double>(floor.count) / (static_cast<double>(floor.elapsedNs) / 1e9);
        double loopRate =
            static_cast<double>(options.closedLoopCount) / (static_cast<double>(elapsed) / 1e9);
        loopTcp.push_back(ratio(loopRate, floorRate));
        p50Tcp.push_back(ratio(quantile(sdk, 0.5), quantile(floor.roundTripsNs, 0.5)));
        p99Tcp.push_back(ratio(quantile(sdk, 0.99), quantile(floor.roundTripsNs, 0.99)));
        if (peer) {
            p50Zmq.push_back(ratio(quantile(sdk, 0.5), quantile(zmq, 0.5)));
            p99Zmq.push_back(ratio(quantile(sdk, 0.99), quantile(zmq, 0.99)));
        }
        sdkSamples.insert(sdkSamples.end(), sdk.begin(), sdk.end());
        tcpSamples.insert(tcpSamples.end(), floor.roundTripsNs.begin(), floor.roundTripsNs.end());
        zmqSamples.insert(zmqSamples.end(), zmq.begin(), zmq.end());
        tcpCount += floor.count;
        tcpNs += floor.elapsedNs;
        sdkLoopCount += options.closedLoopCount;
        sdkLoopNs += elapsed;
    }
    auto latency = [&](const char* which, double q, const std::vector<double>& tcpRatios,
                       const std::vector<double>& zmqRatios, Goal goal, Goal peerGoal) {
        Row row;
        row.key = "get_" + key + "_app_" + which;
        row.label = "SBP Get " + size + ", app thread waits, " + which;
        row.unit = "us";
        row.sdk = quantile(sdkSamples, q) / 1e3;
        row.tcp = quantile(tcpSamples, q) / 1e3;
        row.hasSdk = row.hasTcp = true;
        row.goal = goal;
        row.tcpRounds = Spread::of(tcpRatios);
        if (peer) {
            row.peer = quantile(zmqSamples, q) / 1e3;
            row.hasPeer = true;
            row.peerRounds = Spread::of(zmqRatios);
            row.peerGoal = peerGoal;
        }
        report.add(row);
    };
    latency("p50", 0.5, p50Tcp, p50Zmq, Goal::ratioAtMost(1.5), Goal::ratioAtMost(1.0));
    latency("p99", 0.99, p99Tcp, p99Zmq, Goal::ratioAtMost(2), Goal::none());
    Row loop;
    loop.key = "get_" + key + "_closed_loop";
    loop.label = "SBP Get " + size + ", closed loop in callback";
    loop.unit = "RT/s";
    loop.sdk = static_cast<double>(sdkLoopCount) / (static_cast<double>(sdkLoopNs) / 1e9);
    loop.tcp = static_cast<double>(tcpCount) / (static_cast<double>(tcpNs) / 1e9);
    loop.hasSdk = loop.hasTcp = true;
    loop.goal = Goal::ratioAtLeast(0.8);
    loop.tcpRounds = Spread::of(loopTcp);
    report.add(loop);
}

// Allocation calls of the whole process per operation, after the warm-up of the rounds and
// with nothing else running; the floor allocates nothing per message.
void allocations(SdkPair& pair, Report& report) {
    pair.setValueSize(8);
    const int count = 1000;
    heap::setCounting(true);
    int64_t before = heap::allocations();
    for (int i = 0; i < count; ++i) {
        if (pair.timedGet() < 0) fail("Get went unanswered", pair.problems());
    }
    int64_t appThread = heap::allocations() - before;
    before = heap::allocations();
    if (pair.closedLoop(count, 60) < 0) fail("closed loop did not finish", pair.problems());
    int64_t closedLoop = heap::allocations() - before;
    before = heap::allocations();
    int64_t payloads = 0;
    if (pair.stream(0, 64 * 16, kStreamWindow, &payloads) <= 0) fail("payload stream failed");
    int64_t streamed = heap::allocations() - before;
    heap::setCounting(false);
    report.add("allocs_get_app", "heap allocations per Get, app thread", "count",
               static_cast<double>(appThread) / count, 0, Goal::valueAtMost(0));
    report.add("allocs_get_closed_loop", "heap allocations per Get, closed loop", "count",
               static_cast<double>(closedLoop) / count, 0, Goal::valueAtMost(0));
    report.add("allocs_stream", "heap allocations per stream payload", "count",
               static_cast<double>(streamed) / static_cast<double>(payloads), 0,
               Goal::valueAtMost(0));
}

// ---- 2. Payload stream --------------------------------------------------------------------

void stream(const Options& options, SdkPair& pair, ZmqPeer* peer, Report& report) {
    double sdkBytes = 0, sdkSeconds = 0, tcpBytes = 0, tcpSeconds = 0, zmqBytes = 0, zmqSeconds = 0;
    std::vector<double> toTcp, toZmq;
    for (int round = 0; round < options.rounds; ++round) {
        int64_t writes = 0;
        double floorRate = tcpStream(kStreamWriteSize, SdkPair::kAckEvery, kStreamWindow,
                                     options.streamSeconds, &writes);
        double bytes = static_cast<double>(writes) * kStreamWriteSize;
        tcpBytes += bytes;
        tcpSeconds += bytes / 1e6 / floorRate;
        int64_t payloads = 0;
        double rate = pair.stream(options.streamSeconds, 0, kStreamWindow, &payloads);
        if (rate <= 0) fail("payload stream failed", pair.problems());
        bytes = static_cast<double>(payloads) * SdkPair::kStreamPayload;
        sdkBytes += bytes;
        sdkSeconds += bytes / 1e6 / rate;
        toTcp.push_back(ratio(rate, floorRate));
        if (peer) {
            int64_t updates = 0;
            double peerRate = peer->stream(SdkPair::kStreamPayload, SdkPair::kAckEvery,
                                           kStreamWindow, options.streamSeconds, &updates);
            if (peerRate <= 0) fail("ZeroMQ stream failed");
            bytes = static_cast<double>(updates) * SdkPair::kStreamPayload;
            zmqBytes += bytes;
            zmqSeconds += bytes / 1e6 / peerRate;
            toZmq.push_back(ratio(rate, peerRate));
        }
    }
    Row row;
    row.key = "stream_8100";
    row.label = "CDB ServicePayload stream, 8100 B, ack/64";
    row.unit = "MB/s";
    row.sdk = sdkBytes / 1e6 / sdkSeconds;
    row.tcp = tcpBytes / 1e6 / tcpSeconds;
    row.hasSdk = row.hasTcp = true;
    row.goal = Goal::ratioAtLeast(0.8);
    row.tcpRounds = Spread::of(toTcp);
    if (peer) {
        row.peer = zmqBytes / 1e6 / zmqSeconds;
        row.hasPeer = true;
        row.peerRounds = Spread::of(toZmq);
    }
    report.add(row);
}

// ---- 3. Idle cost -------------------------------------------------------------------------

// Process-wide figures, so each side is measured while the other does not exist: the
// floor before the first endpoint pair is made, the SDK's pair after its other work.
void idle(const Options& options, const IdleFigures& floor, Report& report) {
    usleep(200000);  // the settling time the floor's pair gets too
    Usage before = Usage::now();
    int64_t start = nowNs();
    usleep(static_cast<useconds_t>(options.idleSeconds * 1e6));
    Usage after = Usage::now();
    double seconds = static_cast<double>(nowNs() - start) / 1e9;
    double cpuPercent = (after.cpuSeconds - before.cpuSeconds) / seconds * 100;
    double wakeups =
        static_cast<double>(after.voluntarySwitches - before.voluntarySwitches - 1) / seconds;
    report.add("idle_cpu", "idle connected pair, CPU", "% core", cpuPercent,
               floor.cpuSeconds / floor.seconds * 100, Goal::valueBelow(0.1));
    report.add("idle_wakeups", "idle connected pair, wake-ups", "1/s", wakeups,
               floor.wakeupsPerSecond, Goal::none());
}

// ---- 4. Scale -----------------------------------------------------------------------------

template <typename Predicate>
bool waitAll(Counter& progress, Predicate predicate, double seconds) {
    int64_t deadline = nowNs() + static_cast<int64_t>(seconds * 1e9);
    for (;;) {
        int64_t seen = progress.get();
        if (predicate()) return true;
        int64_t left = deadline - nowNs();
        if (left <= 0) return false;
        progress.waitAtLeast(seen + 1, std::min(0.01, static_cast<double>(left) / 1e9));
    }
}

void scale(const Options& options, const ZELCDBSDK& sdk, Report& report) {
    const int n = options.pairs;
    const std::string label = std::to_string(n) + " pairs";
    ScaleFigures floor = tcpScale(n, options.getsEach, kGetWireSize, answerWireSize(8));
    if (!floor.ok) fail("raw TCP pairs did not complete");

    Counter progress;
    std::vector<std::unique_ptr<SdkPair>> pairs;
    for (int i = 0; i < n; ++i)
        pairs.push_back(std::make_unique<SdkPair>(sdk, 8, false, &progress));
    int64_t start = nowNs();
    for (auto& pair : pairs) {
        if (!pair->startServer()) fail("server endpoint did not start");
    }
    for (;;) {
        std::vector<int> ports = listeningPorts();
        size_t listening = 0;
        for (auto& pair : pairs) {
            if (std::find(ports.begin(), ports.end(), pair->port()) != ports.end()) {
                ++listening;
            } else if (pair->serverFailed()) {
                pair->restartServer();
            }
        }
        if (listening == pairs.size()) break;
        if (nowNs() - start > 60e9) fail("servers did not listen");
        usleep(1000);
    }
    for (auto& pair : pairs) {
        if (!pair->startClient()) fail("client endpoint did not start");
    }
    auto allConnected = [&] {
        bool all = true;
        for (auto& pair : pairs) {
            if (pair->clientFailed()) pair->restartClient();
            all = all && pair->connected();
        }
        return all;
    };
    if (!waitAll(progress, allConnected, 60)) fail("pairs did not connect");
    double connectMs = static_cast<double>(nowNs() - start) / 1e6;
    auto allReady = [&] {
        for (auto& pair : pairs) {
            if (!pair->ready()) return false;
        }
        return true;
    };
    if (!waitAll(progress, allReady, 60)) fail("pairs' services did not start");

    int64_t getsStart = nowNs();
    for (auto& pair : pairs) pair->startClosedLoop(options.getsEach);
    auto allDone = [&] {
        for (auto& pair : pairs) {
            if (!pair->closedLoopDone()) return false;
        }
        return true;
    };
    if (!waitAll(progress, allDone, 120)) fail("pairs' Gets did not finish");
    double getsPerSecond = static_cast<double>(n) * options.getsEach /
                           (static_cast<double>(nowNs() - getsStart) / 1e9);

    double slowestStop = 0;
    for (auto& pair : pairs) slowestStop = std::max(slowestStop, pair->stopClient());
    for (auto& pair : pairs) slowestStop = std::max(slowestStop, pair->stopServer());
    for (auto& pair : pairs) {
        std::string problems = pair->problems();
        if (!problems.empty()) fail("a pair reported", problems);
    }
    pairs.clear();

    report.add("scale_connect", label + ": start and connect all", "ms", connectMs, floor.connectMs,
               Goal::none());
    report.add("scale_gets", label + ": " + std::to_string(options.getsEach) + " Gets each",
               "Gets/s", getsPerSecond, floor.getsPerSecond, Goal::none());
    report.add("scale_slowest_stop", label + ": slowest ZELCDBEndpointStop", "ms", slowestStop,
               floor.slowestStopMs, Goal::valueBelow(50));
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!parse(argc, argv, &options)) {
        std::fprintf(
            stderr,
            "usage: e2e_bench [--quick] [--verbose] [--rounds=N] [--idle-seconds=S] [--pairs=N] "
            "[--json=PATH] [--so=LABEL=PATH]...\n");
        return 2;
    }
    raiseDescriptorLimit();
    ZELCDBSDK sdk;
    if (ZELCDBSDKInitialize(&sdk, sizeof sdk) != ZELCDBErrorNone) fail("ZELCDBSDKInitialize");
    if (!sdk.endpointCreate || !sdk.sourceCreate || !sdk.sinkCreate || !sdk.sinkSendGet ||
        !sdk.sourceSendGetResponse || !sdk.endpointSendServicePayload) {
        fail("this build of the library lacks endpoint or SBP entries");
    }

    Report report;
    describeMachine(report);
    report.note("rounds", std::to_string(options.rounds) +
                              " interleaved (floor, SDK, ZeroMQ); figures over all samples, ratios "
                              "the median of the per-round ratios (min-max across rounds)");
    int64_t runStart = nowNs();

    std::fprintf(stderr, "footprint...\n");
    double heapPerEndpoint = heapPerIdleEndpoint(sdk);
    std::fprintf(stderr, "idle raw TCP pair (%.0f s)...\n", options.idleSeconds);
    IdleFigures idleFloor = tcpIdlePair(options.idleSeconds);

    auto pair = std::make_unique<SdkPair>(sdk, 8, true);
    if (!pair->connect(20)) fail("endpoint pair did not connect", pair->problems());
    std::unique_ptr<ZmqPeer> peer;
    if (ZmqPeer::available()) {
        peer = std::make_unique<ZmqPeer>(kGetWireSize, answerWireSize(8));
        if (!peer->ok()) fail("ZeroMQ sockets could not be connected");
    } else {
        report.note("peer", "ZeroMQ rows left out: libzmq not found at build time");
    }
    std::fprintf(stderr, "round trips (%d interleaved rounds)...\n", options.rounds);
    roundTrips(options, *pair, peer.get(), 8, report);
    roundTrips(options, *pair, peer.get(), 1024, report);
    std::fprintf(stderr, "stream...\n");
    stream(options, *pair, peer.get(), report);
    // Its threads must be gone before the process's allocations and idle time are counted.
    peer.reset();
    allocations(*pair, report);
    std::fprintf(stderr, "idle endpoint pair (%.0f s)...\n", options.idleSeconds);
    idle(options, idleFloor, report);
    std::string problems = pair->problems();
    if (!problems.empty()) fail("the pair reported", problems);
    pair.reset();

    std::fprintf(stderr, "%d pairs...\n", options.pairs);
    scale(options, sdk, report);

    reportSizes(options, report);
    report.addSdkOnly("heap_idle_endpoint", "heap held by one idle connected endpoint", "KB",
                      heapPerEndpoint / 1024, Goal::none());

    report.note("load after", loadText());
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, "%.0f s", static_cast<double>(nowNs() - runStart) / 1e9);
    report.note("duration", seconds);
    report.printTable(stdout);
    std::string json = report.json();
    std::printf("\n%s", json.c_str());
    if (!options.jsonPath.empty()) {
        std::ofstream out(options.jsonPath);
        out << json;
    }
    sdk.sdkUninitialize();
    return 0;
}
