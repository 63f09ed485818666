// Feeds the CDB reader arbitrary bytes in arbitrary segments, the way a socket would hand
// them over, and checks that the outcome does not depend on the segmentation.
//
// Input layout: byte 0 picks the buffer size (bits 4-5) and how many segment-length bytes
// follow (bits 0-3, plus one); those bytes give the segment lengths in turn (0 = one "nothing
// now" answer) and are reused cyclically; the rest is the byte stream. After kMaxTurns turns
// whatever is left arrives at once: a turn that stops inside a message costs an exception,
// and a long stream cut into one-byte segments would spend the run's time on those alone
// (every split the fuzzer wants is reachable near the start of a stream).
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "cdb/CDBProtocolHandler.h"
#include "cdb/CDBReader.h"
#include "cdb/CDBWire.h"
#include "plat/Exception.h"
#include "rdr/BufferedInStream.h"

namespace {

void require(bool condition) {
    if (!condition) std::abort();
}

// Hands out at most the bytes released so far, like a non-blocking socket. One stream per
// buffer size lives for the whole run and is restarted for each input: a fresh 16 KiB buffer
// per input costs more under the sanitizers than the parsing it serves.
class SegmentedInStream : public rdr::BufferedInStream {
public:
    explicit SegmentedInStream(size_t bufferSize) : rdr::BufferedInStream(bufferSize) {}

    // Back to an empty buffer at stream position 0, reading data from the start.
    void restart(const uint8_t* data, size_t length) {
        ptr_ = end_ = checkpointPtr_ = buffer_;
        checkpointPos_ = 0;
        offset_ = 0;
        data_ = data;
        length_ = length;
        released_ = taken_ = 0;
    }
    void release(size_t n) { released_ += std::min(n, length_ - released_); }
    bool exhausted() const { return taken_ == length_; }

protected:
    size_t readData(void* dest, size_t maxBytes) override {
        size_t n = std::min(maxBytes, released_ - taken_);
        std::memcpy(dest, data_ + taken_, n);
        taken_ += n;
        return n;
    }

private:
    const uint8_t* data_ = nullptr;
    size_t length_ = 0;
    size_t released_ = 0;
    size_t taken_ = 0;
};

// Everything handed over, flattened into one string, so two runs compare with ==.
class Recorder : public zelcdbsdk::CDBProtocolHandler {
public:
    std::string log;

    void handleServicesRequest(zelcdbsdk::CDBVersion v) override {
        add('R', {v.majorNumber, v.minorNumber});
    }
    void handleServicesSupported(zelcdbsdk::CDBVersion v,
                                 const std::vector<zelcdbsdk::CDBService>& services,
                                 uint16_t count) override {
        require(services.size() == count);
        add('S', {v.majorNumber, v.minorNumber, count});
        for (const zelcdbsdk::CDBService& s : services) {
            require(s.handler == nullptr && s.nameLength() <= 255);
            add('e', {s.id, s.version.majorNumber, s.version.minorNumber, s.serviceAttribute,
                      s.accessControl});
            log.append(s.name(), s.nameLength());
        }
    }
    void handleStartService(uint16_t id, zelcdbsdk::CDBVersion v) override {
        add('B', {id, v.majorNumber, v.minorNumber});
    }
    void handleStopService(uint16_t id) override { add('E', {id}); }
    void handleServicePayload(uint16_t id, uint8_t accessControl, size_t length,
                              const uint8_t* data) override {
        require(length <= zelcdbsdk::kMaxServicePayloadLength);
        require(length == 0 || data != nullptr);
        add('P', {id, accessControl, static_cast<unsigned>(length)});
        if (length > 0) log.append(reinterpret_cast<const char*>(data), length);
    }
    void handleServiceResponse(uint16_t id, uint16_t code) override { add('A', {id, code}); }
    void handlePing(uint16_t sequence) override { add('I', {sequence}); }
    void handlePingResponse(uint16_t sequence) override { add('O', {sequence}); }
    void handleByeBye() override { add('Y', {}); }

private:
    void add(char tag, std::initializer_list<unsigned> values) {
        log += tag;
        for (unsigned v : values) log += std::to_string(v) + ",";
    }
};

const size_t kMaxTurns = 64;

// Runs the stream through a reader until it ends or fails, as the session would: it stops at
// the first exception. Returns the record plus the failure text, if any. A segment of 0 is a
// turn on which nothing new arrives.
std::string run(SegmentedInStream& in, const uint8_t* data, size_t length,
                const std::vector<size_t>& segments) {
    Recorder recorder;
    in.restart(data, length);
    zelcdbsdk::CDBReader reader(recorder, in, nullptr);
    try {
        size_t next = 0;
        do {
            in.release(next < kMaxTurns ? segments[next % segments.size()] : length);
            ++next;
            while (reader.processMessages()) {
            }
        } while (!in.exhausted());
    } catch (const plat::Exception& e) {
        recorder.log += "!";
        recorder.log += e.str();
    }
    return recorder.log;
}

const size_t kBufferSizes[] = {0, 300, 1024, 4096};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    size_t segmentCount = (data[0] & 0x0f) + 1u;
    static SegmentedInStream streams[] = {
        SegmentedInStream(kBufferSizes[0]), SegmentedInStream(kBufferSizes[1]),
        SegmentedInStream(kBufferSizes[2]), SegmentedInStream(kBufferSizes[3])};
    SegmentedInStream& segmentedIn = streams[(data[0] >> 4) & 3];
    if (size < 1 + segmentCount) return 0;
    std::vector<size_t> segments(data + 1, data + 1 + segmentCount);
    bool progress = false;
    for (size_t n : segments) progress = progress || n > 0;
    if (!progress) segments.assign(1, 1);
    const uint8_t* stream = data + 1 + segmentCount;
    size_t streamLength = size - 1 - segmentCount;

    std::string whole = run(streams[0], stream, streamLength, {streamLength});
    std::string segmented = run(segmentedIn, stream, streamLength, segments);
    require(whole == segmented);
    return 0;
}
