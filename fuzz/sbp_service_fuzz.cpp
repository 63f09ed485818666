// Runs a started SBP source and an active SBP sink back to back on virtual time, each behind
// a fake endpoint host that hands its packets to the other, and drives them from the input:
// arbitrary ServicePayloads straight into either side, the sink application's requests, the
// source application's answers (at once, later or never), service starts, stops and
// statuses, and moves of the clock that fire every time-out. Whatever either side sends must
// parse as an SBP packet of the commands that side may send.
//
// Input layout: a list of steps, one op byte each (op % 10) with its arguments:
//   0 n bytes...   ServicePayload of the next n bytes (0: 64) to the source
//   1 n bytes...   ServicePayload of the next n bytes (0: 64) to the sink
//   2 t            move the clock on by t x 250 ms and fire the due timers
//   3 k u a b      the sink application: Get, Set, Subscribe (type a % 4, interval b x 100),
//                  Cancel (command 0xB0 + a % 10), Alive (interval a % 3 - 1 s), or answer a
//                  challenge, by k % 6, for uid u % 4
//   4 k u r        the source application answers late: a Get, a subscription update, a Set,
//                  a Subscribe, or sends a challenge, by k % 5, for uid u % 4; r picks the
//                  result value
//   5 m            how the source's callbacks answer from now on: 0 later, 1 at once with
//                  the result value, 2 refused; bits 2..3 pick the type a type-2 subscriber
//                  gets, bit 4 set leaves the interval at 0, bits 5..7 pick the result
//                  value it leaves
//   6              deliver what each side has sent to the other
//   7 s            the sink hears CDB status 1, 2 or 258, by s % 3
//   8              the peer starts the source's service
//   9 s            the peer stops the source's service (s even), or the connection that
//                  started it ends (s odd)
// Packets travel between the two only in step 6, so requests and answers cross freely.
#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <vector>

#include "cdb/CDBEndpointHost.h"
#include "plat/Logger.h"
#include "plat/ManualClock.h"
#include "plat/TimerManager.h"
#include "sbp/SBPPacket.h"
#include "sbp/ZELSBPSink.h"
#include "sbp/ZELSBPSource.h"

namespace {

using Bytes = std::vector<uint8_t>;

void require(bool condition) {
    if (!condition) std::abort();
}

const uint32_t kUids[] = {0, 0x11223344, 0x11223345, 0xFFFFFFFF};
const uint32_t kResults[] = {0,          0x10000002, 0x10000006, 0x10000008,
                             0x1000000B, 5,          0x0FFFFFFF, 0x10000000};

// Formats every line, so that the format strings run under the sanitizers, and drops it.
struct DiscardingLogger : plat::Logger {
    void log(int, const char*, const char* format, va_list args) override {
        char line[512];
        std::vsnprintf(line, sizeof line, format, args);
    }
};

unsigned gSum;
void touch(const uint8_t* data, int32_t size) {
    require(size >= 0 && (size == 0 || data != nullptr));
    for (int32_t i = 0; i < size; ++i) gSum += data[i];
}

// One side's endpoint: every packet it sends is checked and queued for the other side.
struct Host : zelcdbsdk::CDBEndpointHost {
    const char* allowed;  // the commands this side may send
    std::deque<Bytes> outbox;
    int depth = 0;

    explicit Host(const char* commands) : allowed(commands) {}
    ZELCDBEndpoint* endpointHandle() override { return nullptr; }
    void* endpointContext() override { return nullptr; }
    void enterCallback() override { ++depth; }
    void leaveCallback() override { --depth; }
    bool hasSession() override { return true; }
    void sendServicePayload(uint16_t, const uint8_t* data, size_t length) override {
        zelcdbsdk::SBPPacket packet;
        require(zelcdbsdk::readSBPPacket(data, length, {"check", nullptr}, &packet) == 0);
        // A payload of 1 to 4 bytes is written but reads as none: check the length field.
        uint32_t declared =
            static_cast<uint32_t>(data[1]) << 24 | data[2] << 16 | data[3] << 8 | data[4];
        require(length == declared + 5 && length >= 16);
        bool known = false;
        for (const char* c = allowed; *c; ++c) known |= static_cast<uint8_t>(*c) == packet.command;
        require(known);
        if (outbox.size() < 4096) outbox.emplace_back(data, data + length);
    }
    void sendServiceResponse(uint16_t, uint16_t) override {}
    void stopPeerService(uint16_t) override {}
};

// The source's application, answering as the script last told it.
struct SourceApp {
    ZELCDBError answer = ZELCDBErrorNone;
    uint32_t result = 0;
    uint32_t chosenType = 0;
    bool zeroInterval = false;
};

ZELSBPSourceCallbacks sourceCallbacks() {
    ZELSBPSourceCallbacks t{};
    t.getCallback = [](ZELCDBEndpoint*, uint16_t, void* c, uint32_t, uint32_t, uint32_t* result) {
        SourceApp& app = *static_cast<SourceApp*>(c);
        *result = app.result;
        return app.answer;
    };
    t.setCallback = [](ZELCDBEndpoint*, uint16_t, void* c, uint32_t, const uint8_t* data,
                       int32_t size, uint32_t* result) {
        touch(data, size);
        SourceApp& app = *static_cast<SourceApp*>(c);
        *result = app.result;
        return app.answer;
    };
    t.subscribeCallback = [](ZELCDBEndpoint*, uint16_t, void* c, uint32_t, uint32_t* type,
                             uint32_t* interval, uint32_t* result) {
        SourceApp& app = *static_cast<SourceApp*>(c);
        if (*type == 2) *type = app.chosenType;
        if (app.zeroInterval) *interval = 0;
        *result = app.result;
        return app.answer;
    };
    t.authResponseCallback = [](ZELCDBEndpoint*, uint16_t, void*, void*, uint32_t, uint32_t,
                                uint32_t, const uint8_t* data, int32_t size) { touch(data, size); };
    return t;
}

ZELSBPSinkCallbacks sinkCallbacks() {
    ZELSBPSinkCallbacks t{};
    t.dataCallback = [](ZELCDBEndpoint*, uint16_t, void*, void*, uint32_t, uint32_t,
                        const uint8_t* data, int32_t size) { touch(data, size); };
    t.authChallengeCallback = [](ZELCDBEndpoint*, uint16_t, void*, void*, uint32_t, uint32_t,
                                 const uint8_t* data, int32_t size) { touch(data, size); };
    return t;
}

class Script {
public:
    Script(const uint8_t* data, size_t size) : data_(data), size_(size) {}

    void run(ZELSBPSink& sink, ZELSBPSource& source, plat::TimerManager& timers,
             plat::ManualClock& clock) {
        while (at_ < size_) {
            switch (next() % 10) {
                case 0:
                    feed(source);
                    break;
                case 1:
                    feed(sink);
                    break;
                case 2:
                    clock.advanceMs(250 * static_cast<int64_t>(next()));
                    timers.processTimers();
                    break;
                case 3:
                    request(sink);
                    break;
                case 4:
                    answer(source);
                    break;
                case 5: {
                    uint8_t m = next();
                    const ZELCDBError answers[] = {ZELCDBErrorNone, ZELCDBErrorLocalSBPError,
                                                   ZELCDBErrorFailed, ZELCDBErrorNone};
                    app_.answer = answers[m & 3];
                    app_.chosenType = (m >> 2) & 3;
                    app_.zeroInterval = (m & 0x10) != 0;
                    app_.result = kResults[m >> 5];
                    break;
                }
                case 6:
                    pump(sink, source);
                    break;
                case 7: {
                    const uint16_t statuses[] = {1, 2, 258};
                    sink.serviceResponse(statuses[next() % 3]);
                    break;
                }
                case 8:
                    source.startService({1, 0});
                    break;
                case 9:
                    if (next() & 1) {
                        source.sessionEnded();
                    } else {
                        source.stopService();
                    }
                    break;
            }
            require(sinkHost_.depth == 0 && sourceHost_.depth == 0);
        }
        pump(sink, source);
    }

    SourceApp app_;
    Host sinkHost_{"\xB1\xB2\xB3\xB4\xB5\xB8"};
    Host sourceHost_{"\xB6\xB7\xB9"};

private:
    uint8_t next() { return at_ < size_ ? data_[at_++] : 0; }
    uint32_t uid() { return kUids[next() % 4]; }

    void feed(zelcdbsdk::CDBService::Handler& handler) {
        size_t n = next();
        if (n == 0) n = 64;
        n = std::min(n, size_ - at_);
        // A copy of its own, so that a read past the end shows as an overflow.
        Bytes payload(data_ + at_, data_ + at_ + n);
        at_ += n;
        handler.servicePayload(payload.empty() ? nullptr : payload.data(), payload.size());
    }

    void request(ZELSBPSink& sink) {
        uint8_t k = next();
        uint32_t u = uid();
        uint8_t a = next(), b = next();
        static const uint8_t kValue[] = {0x01, 0x00, 0x00, 0x00, 0x2A, 0x11, 0x22, 0x33};
        switch (k % 6) {
            case 0:
                sink.sendGet(nullptr, u);
                break;
            case 1:
                sink.sendSet(nullptr, u, kValue, a % (sizeof kValue + 1));
                break;
            case 2:
                sink.sendSubscribe(nullptr, u, a % 4, b * 100u);
                break;
            case 3:
                sink.sendCancel(nullptr, u, 0xB0u + a % 10);
                break;
            case 4:
                sink.sendAlive(nullptr, a % 3 - 1);
                break;
            case 5:
                sink.sendServiceAuthResponse(nullptr, 0xB0u + a % 10, u, kResults[b % 8], kValue,
                                             b % (sizeof kValue + 1));
                break;
        }
    }

    void answer(ZELSBPSource& source) {
        uint8_t k = next();
        uint32_t u = uid();
        uint32_t result = kResults[next() % 8];
        static const uint8_t kValue[] = {0x02, 0x40, 0x09, 0x21, 0xFB, 0x54, 0x44, 0x2D, 0x18};
        switch (k % 5) {
            case 0:
                source.sendGetResponse(0xB1, u, result, kValue, result ? 0 : sizeof kValue);
                break;
            case 1:
                source.sendGetResponse(0xB3, u, result, kValue, sizeof kValue);
                break;
            case 2:
                source.sendSetResponse(u, result);
                break;
            case 3:
                source.sendSubscribeResponse(u, result);
                break;
            case 4:
                source.sendServiceAuthChallenge(0xB1u + k / 5 % 3, u, kValue, k % 10);
                break;
        }
    }

    // Delivers queued packets both ways until both are quiet (or a bound is reached: a
    // script may make them talk for a long time).
    void pump(ZELSBPSink& sink, ZELSBPSource& source) {
        for (int moved = 0; moved < 256; ++moved) {
            if (!sinkHost_.outbox.empty()) {
                Bytes packet = std::move(sinkHost_.outbox.front());
                sinkHost_.outbox.pop_front();
                source.servicePayload(packet.data(), packet.size());
            } else if (!sourceHost_.outbox.empty()) {
                Bytes packet = std::move(sourceHost_.outbox.front());
                sourceHost_.outbox.pop_front();
                sink.servicePayload(packet.data(), packet.size());
            } else {
                return;
            }
        }
    }

    const uint8_t* data_;
    size_t size_;
    size_t at_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    plat::ManualClock clock;
    plat::ScopedClock useClock(&clock);
    DiscardingLogger logger;
    plat::ScopedCurrentLogger useLogger(&logger);
    plat::TimerManager timers;
    Script script(data, size);
    const ZELSBPSinkCallbacks sinkTable = sinkCallbacks();
    const ZELSBPSourceCallbacks sourceTable = sourceCallbacks();
    zelcdbsdk::CDBService::HandlerRef sink = zelcdbsdk::CDBService::HandlerRef::adopt(
        new ZELSBPSink(&script.sinkHost_, 0x4001, nullptr, &sinkTable, sizeof sinkTable));
    zelcdbsdk::CDBService::HandlerRef source = zelcdbsdk::CDBService::HandlerRef::adopt(
        new ZELSBPSource(&script.sourceHost_, &script.app_, &sourceTable, sizeof sourceTable));
    source->setServiceId(0x4001);
    auto& theSink = static_cast<ZELSBPSink&>(*sink.get());
    auto& theSource = static_cast<ZELSBPSource&>(*source.get());
    theSource.startService({1, 0});
    theSink.serviceResponse(1);
    script.run(theSink, theSource, timers, clock);
    return 0;
}
