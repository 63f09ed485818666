// Encodes and decodes one representative SBP payload through the function table, and the
// same logical data with msgpack-c, then prints the throughput of each and the ratios
// ours/msgpack (payloads per second, so the two encodings' different sizes do not count).
//
// The payload: a structure of 40 mixed members (booleans, integers of every width, floats,
// doubles, ASCII strings), an array of 1,000 ints and an array of 100 small structures.
#include <benchmark/benchmark.h>
#include <msgpack.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "sbp/ZELSBPSerializer.h"
#include "zelcdbsdk.h"

namespace {

const ZELCDBSDK* gApi = nullptr;

// ---- the logical data ---------------------------------------------------------------------

enum class Kind { kBool, kByte, kShort, kInt, kLong, kFloat, kDouble, kString };

struct Member {
    uint32_t uid;
    Kind kind;
    int64_t integer;
    double real;
    std::string text;
};

struct Record {
    int32_t id;
    int16_t flags;
    double value;
    std::string name;
};

struct Payload {
    std::vector<Member> members;
    std::vector<int32_t> ints;
    std::vector<Record> records;
};

constexpr uint32_t kRootUid = 0x1000;
constexpr uint32_t kIntsUid = 0x2000;
constexpr uint32_t kRecordsUid = 0x3000;
constexpr uint32_t kRecordUids[4] = {0x4001, 0x4002, 0x4003, 0x4004};

Payload makePayload() {
    uint64_t state = 0x9E3779B97F4A7C15ull;
    auto next = [&state] {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        return state;
    };
    Payload p;
    const char* words[] = {"speed", "engine temperature", "fuel level", "gear", "odometer"};
    for (uint32_t i = 0; i < 40; ++i) {
        Member m{0x100 + i, static_cast<Kind>(i % 8), static_cast<int64_t>(next()),
                 static_cast<double>(next() % 100000) / 7.0, ""};
        if (m.kind == Kind::kString) m.text = std::string(words[i % 5]) + " " + std::to_string(i);
        p.members.push_back(m);
    }
    for (int i = 0; i < 1000; ++i) p.ints.push_back(static_cast<int32_t>(next()));
    for (int i = 0; i < 100; ++i) {
        p.records.push_back(Record{i, static_cast<int16_t>(next()),
                                   static_cast<double>(next() % 1000) / 3.0,
                                   "record-item-" + std::to_string(1000 + i)});
    }
    return p;
}

const Payload& payload() {
    static const Payload p = makePayload();
    return p;
}

// What every decoder folds the values into, so that nothing is optimised away.
struct Sink {
    uint64_t sum = 0;
    void add(uint64_t v) { sum = sum * 31 + v; }
    void addReal(double v) {
        uint64_t bits;
        std::memcpy(&bits, &v, sizeof bits);
        add(bits);
    }
};

// ---- ours -------------------------------------------------------------------------------

std::vector<uint8_t> encodeOurs(const Payload& p) {
    const ZELCDBSDK& t = *gApi;
    ZELSBPSerializer* s = nullptr;
    t.serializerCreate(&s);
    t.serializerBeginStructure(s, kRootUid);
    for (const Member& m : p.members) {
        switch (m.kind) {
            case Kind::kBool:
                t.serializerAddBoolean(s, m.uid, static_cast<int32_t>(m.integer & 1));
                break;
            case Kind::kByte:
                t.serializerAddByte(s, m.uid, static_cast<int8_t>(m.integer));
                break;
            case Kind::kShort:
                t.serializerAddShort(s, m.uid, static_cast<int16_t>(m.integer));
                break;
            case Kind::kInt:
                t.serializerAddInt(s, m.uid, static_cast<int32_t>(m.integer));
                break;
            case Kind::kLong:
                t.serializerAddLong(s, m.uid, m.integer);
                break;
            case Kind::kFloat:
                t.serializerAddFloat(s, m.uid, static_cast<float>(m.real));
                break;
            case Kind::kDouble:
                t.serializerAddDouble(s, m.uid, m.real);
                break;
            case Kind::kString:
                t.serializerAddString(s, m.uid, m.text.data(),
                                      static_cast<uint32_t>(m.text.size()));
                break;
        }
    }
    t.serializerBeginArray(s, kIntsUid, 0x85);
    for (int32_t v : p.ints) t.serializerAddInt(s, 0, v);
    t.serializerEnd(s);
    t.serializerBeginArray(s, kRecordsUid, 0xA1);
    for (const Record& r : p.records) {
        t.serializerBeginStructure(s, 0);
        t.serializerAddInt(s, kRecordUids[0], r.id);
        t.serializerAddShort(s, kRecordUids[1], r.flags);
        t.serializerAddDouble(s, kRecordUids[2], r.value);
        t.serializerAddString(s, kRecordUids[3], r.name.data(),
                              static_cast<uint32_t>(r.name.size()));
        t.serializerEnd(s);
    }
    t.serializerEnd(s);
    t.serializerEnd(s);
    const uint8_t* data = nullptr;
    uint32_t length = 0;
    t.serializerGetData(s, &data, &length);
    std::vector<uint8_t> out(data, data + length);
    t.serializerDestroy(s);
    return out;
}

// The same calls on the library's internal serializer, inlined into the loop as msgpack-c's
// are: shows what the codec costs apart from one C call per value, which applications
// cannot avoid.
std::vector<uint8_t> encodeOursDirect(const Payload& p) {
    ZELSBPSerializer s;
    s.beginStructure(kRootUid);
    for (const Member& m : p.members) {
        switch (m.kind) {
            case Kind::kBool:
                s.add(m.uid, (m.integer & 1) != 0);
                break;
            case Kind::kByte:
                s.add(m.uid, static_cast<int8_t>(m.integer));
                break;
            case Kind::kShort:
                s.add(m.uid, static_cast<int16_t>(m.integer));
                break;
            case Kind::kInt:
                s.add(m.uid, static_cast<int32_t>(m.integer));
                break;
            case Kind::kLong:
                s.add(m.uid, m.integer);
                break;
            case Kind::kFloat:
                s.add(m.uid, static_cast<float>(m.real));
                break;
            case Kind::kDouble:
                s.add(m.uid, m.real);
                break;
            case Kind::kString:
                s.addString(m.uid, m.text.data(), static_cast<uint32_t>(m.text.size()));
                break;
        }
    }
    s.beginArray(kIntsUid, 0x85);
    for (int32_t v : p.ints) s.add(0, v);
    s.end();
    s.beginArray(kRecordsUid, 0xA1);
    for (const Record& r : p.records) {
        s.beginStructure(0);
        s.add(kRecordUids[0], r.id);
        s.add(kRecordUids[1], r.flags);
        s.add(kRecordUids[2], r.value);
        s.addString(kRecordUids[3], r.name.data(), static_cast<uint32_t>(r.name.size()));
        s.end();
    }
    s.end();
    s.end();
    return std::vector<uint8_t>(s.data(), s.data() + s.length());
}

Sink& sinkOf(void* userData) {
    return *static_cast<Sink*>(userData);
}

const ZELSBPDeserializerCallbacks kOurCallbacks = {
    [](ZELSBPDeserializer*, void*, void* u, uint32_t uid, int32_t v) {
        sinkOf(u).add(uid + static_cast<uint64_t>(v));
    },
    [](ZELSBPDeserializer*, void*, void* u, uint32_t uid, int8_t v) {
        sinkOf(u).add(uid + static_cast<uint64_t>(v));
    },
    [](ZELSBPDeserializer*, void*, void* u, uint32_t uid, int16_t v) {
        sinkOf(u).add(uid + static_cast<uint64_t>(v));
    },
    [](ZELSBPDeserializer*, void*, void* u, uint32_t uid, int32_t v) {
        sinkOf(u).add(uid + static_cast<uint64_t>(v));
    },
    [](ZELSBPDeserializer*, void*, void* u, uint32_t uid, int64_t v) {
        sinkOf(u).add(uid + static_cast<uint64_t>(v));
    },
    [](ZELSBPDeserializer*, void*, void* u, uint32_t uid, float v) {
        sinkOf(u).add(uid);
        sinkOf(u).addReal(static_cast<double>(v));
    },
    [](ZELSBPDeserializer*, void*, void* u, uint32_t uid, double v) {
        sinkOf(u).add(uid);
        sinkOf(u).addReal(v);
    },
    [](ZELSBPDeserializer*, void*, void* u, uint32_t uid, const uint8_t*, uint32_t length) {
        sinkOf(u).add(uid + static_cast<uint64_t>(length));
    },
    [](ZELSBPDeserializer*, void*, void* u, uint32_t uid, const char* utf8) {
        sinkOf(u).add(uid + std::strlen(utf8));
    },
    [](ZELSBPDeserializer*, void*, void* u, uint32_t uid, uint32_t count) {
        sinkOf(u).add(uid + static_cast<uint64_t>(count));
    },
    [](ZELSBPDeserializer*, void*, void* u, uint32_t uid, uint8_t) { sinkOf(u).add(uid); },
    [](ZELSBPDeserializer*, void*, void* u, uint32_t uid) { sinkOf(u).add(uid); },
};

// ---- msgpack ------------------------------------------------------------------------------

// A map keyed by the same UIDs: the root's members, then the two arrays.
std::vector<uint8_t> encodeMsgpack(const Payload& p) {
    msgpack_sbuffer buffer;
    msgpack_sbuffer_init(&buffer);
    msgpack_packer pk;
    msgpack_packer_init(&pk, &buffer, msgpack_sbuffer_write);
    msgpack_pack_map(&pk, p.members.size() + 2);
    for (const Member& m : p.members) {
        msgpack_pack_uint32(&pk, m.uid);
        switch (m.kind) {
            case Kind::kBool:
                (m.integer & 1) ? msgpack_pack_true(&pk) : msgpack_pack_false(&pk);
                break;
            case Kind::kByte:
                msgpack_pack_int8(&pk, static_cast<int8_t>(m.integer));
                break;
            case Kind::kShort:
                msgpack_pack_int16(&pk, static_cast<int16_t>(m.integer));
                break;
            case Kind::kInt:
                msgpack_pack_int32(&pk, static_cast<int32_t>(m.integer));
                break;
            case Kind::kLong:
                msgpack_pack_int64(&pk, m.integer);
                break;
            case Kind::kFloat:
                msgpack_pack_float(&pk, static_cast<float>(m.real));
                break;
            case Kind::kDouble:
                msgpack_pack_double(&pk, m.real);
                break;
            case Kind::kString:
                msgpack_pack_str(&pk, m.text.size());
                msgpack_pack_str_body(&pk, m.text.data(), m.text.size());
                break;
        }
    }
    msgpack_pack_uint32(&pk, kIntsUid);
    msgpack_pack_array(&pk, p.ints.size());
    for (int32_t v : p.ints) msgpack_pack_int32(&pk, v);
    msgpack_pack_uint32(&pk, kRecordsUid);
    msgpack_pack_array(&pk, p.records.size());
    for (const Record& r : p.records) {
        msgpack_pack_map(&pk, 4);
        msgpack_pack_uint32(&pk, kRecordUids[0]);
        msgpack_pack_int32(&pk, r.id);
        msgpack_pack_uint32(&pk, kRecordUids[1]);
        msgpack_pack_int16(&pk, r.flags);
        msgpack_pack_uint32(&pk, kRecordUids[2]);
        msgpack_pack_double(&pk, r.value);
        msgpack_pack_uint32(&pk, kRecordUids[3]);
        msgpack_pack_str(&pk, r.name.size());
        msgpack_pack_str_body(&pk, r.name.data(), r.name.size());
    }
    std::vector<uint8_t> out(buffer.data, buffer.data + buffer.size);
    msgpack_sbuffer_destroy(&buffer);
    return out;
}

void walkMsgpack(const msgpack_object& o, Sink& sink) {
    switch (o.type) {
        case MSGPACK_OBJECT_BOOLEAN:
            sink.add(static_cast<uint64_t>(o.via.boolean));
            break;
        case MSGPACK_OBJECT_POSITIVE_INTEGER:
            sink.add(o.via.u64);
            break;
        case MSGPACK_OBJECT_NEGATIVE_INTEGER:
            sink.add(static_cast<uint64_t>(o.via.i64));
            break;
        case MSGPACK_OBJECT_FLOAT32:
        case MSGPACK_OBJECT_FLOAT64:
            sink.addReal(o.via.f64);
            break;
        case MSGPACK_OBJECT_STR:
            sink.add(static_cast<uint64_t>(o.via.str.size));
            break;
        case MSGPACK_OBJECT_BIN:
            sink.add(static_cast<uint64_t>(o.via.bin.size));
            break;
        case MSGPACK_OBJECT_ARRAY:
            sink.add(static_cast<uint64_t>(o.via.array.size));
            for (uint32_t i = 0; i < o.via.array.size; ++i) walkMsgpack(o.via.array.ptr[i], sink);
            break;
        case MSGPACK_OBJECT_MAP:
            sink.add(static_cast<uint64_t>(o.via.map.size));
            for (uint32_t i = 0; i < o.via.map.size; ++i) {
                walkMsgpack(o.via.map.ptr[i].key, sink);
                walkMsgpack(o.via.map.ptr[i].val, sink);
            }
            break;
        default:
            break;
    }
}

// ---- benchmarks ----------------------------------------------------------------------------

void setBytes(benchmark::State& state, size_t size) {
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
    state.counters["payload_bytes"] = static_cast<double>(size);
}

void BM_EncodeOurs(benchmark::State& state) {
    size_t size = 0;
    for (auto _ : state) {
        std::vector<uint8_t> out = encodeOurs(payload());
        size = out.size();
        benchmark::DoNotOptimize(out.data());
    }
    setBytes(state, size);
}

void BM_EncodeOursDirect(benchmark::State& state) {
    size_t size = 0;
    for (auto _ : state) {
        std::vector<uint8_t> out = encodeOursDirect(payload());
        size = out.size();
        benchmark::DoNotOptimize(out.data());
    }
    setBytes(state, size);
}

void BM_EncodeMsgpack(benchmark::State& state) {
    size_t size = 0;
    for (auto _ : state) {
        std::vector<uint8_t> out = encodeMsgpack(payload());
        size = out.size();
        benchmark::DoNotOptimize(out.data());
    }
    setBytes(state, size);
}

void BM_DecodeOurs(benchmark::State& state) {
    std::vector<uint8_t> data = encodeOurs(payload());
    ZELSBPDeserializer* d = nullptr;
    gApi->deserializerCreate(&d, nullptr, &kOurCallbacks, sizeof kOurCallbacks);
    Sink sink;
    for (auto _ : state) {
        ZELCDBError result = gApi->deserializerDeserialize(d, &sink, data.data(),
                                                           static_cast<uint32_t>(data.size()));
        if (result != ZELCDBErrorNone) state.SkipWithError("deserialize failed");
    }
    benchmark::DoNotOptimize(sink.sum);
    gApi->deserializerDestroy(d);
    setBytes(state, data.size());
}

void BM_DecodeMsgpack(benchmark::State& state) {
    std::vector<uint8_t> data = encodeMsgpack(payload());
    Sink sink;
    for (auto _ : state) {
        msgpack_unpacked result;
        msgpack_unpacked_init(&result);
        size_t offset = 0;
        if (msgpack_unpack_next(&result, reinterpret_cast<const char*>(data.data()), data.size(),
                                &offset) != MSGPACK_UNPACK_SUCCESS) {
            state.SkipWithError("unpack failed");
        }
        walkMsgpack(result.data, sink);
        msgpack_unpacked_destroy(&result);
    }
    benchmark::DoNotOptimize(sink.sum);
    setBytes(state, data.size());
}

BENCHMARK(BM_EncodeOurs);
BENCHMARK(BM_EncodeOursDirect);
BENCHMARK(BM_EncodeMsgpack);
BENCHMARK(BM_DecodeOurs);
BENCHMARK(BM_DecodeMsgpack);

// Keeps each benchmark's payloads per second and MB/s for the summary.
class SummaryReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            // With repetitions, the median stands for the benchmark.
            bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            if (run.error_occurred || (run.run_type != Run::RT_Iteration && !median)) continue;
            if (!median && results_.count(run.run_name.function_name) && run.repetitions > 1)
                continue;
            double seconds =
                run.GetAdjustedCPUTime() / benchmark::GetTimeUnitMultiplier(run.time_unit);
            double bytes =
                run.counters.count("payload_bytes") ? run.counters.at("payload_bytes").value : 0;
            results_[run.run_name.function_name] = {1.0 / seconds, bytes / seconds / 1e6};
        }
        ConsoleReporter::ReportRuns(runs);
    }

    void printSummary() const {
        std::printf("\n%-18s %14s %12s\n", "", "payloads/s", "MB/s");
        for (const auto& [name, r] : results_) {
            std::printf("%-18s %14.0f %12.1f\n", name.c_str(), r.perSecond, r.megabytesPerSecond);
        }
        auto ratio = [this](const char* ours, const char* theirs) {
            auto a = results_.find(ours);
            auto b = results_.find(theirs);
            return a == results_.end() || b == results_.end()
                       ? 0.0
                       : a->second.perSecond / b->second.perSecond;
        };
        std::printf("\nratio ours/msgpack (same logical data, payloads per CPU second):\n");
        std::printf("  encode %.2f   (internal serializer, no C call per value: %.2f)\n",
                    ratio("BM_EncodeOurs", "BM_EncodeMsgpack"),
                    ratio("BM_EncodeOursDirect", "BM_EncodeMsgpack"));
        std::printf("  decode %.2f\n", ratio("BM_DecodeOurs", "BM_DecodeMsgpack"));
    }

private:
    struct Result {
        double perSecond;
        double megabytesPerSecond;
    };
    std::map<std::string, Result> results_;
};

}  // namespace

int main(int argc, char** argv) {
    static ZELCDBSDK api;
    if (ZELCDBSDKInitialize(&api, sizeof api) != ZELCDBErrorNone ||
        api.serializerCreate == nullptr) {
        std::fprintf(stderr, "no codec in the function table\n");
        return 1;
    }
    gApi = &api;
    std::printf("payload: %zu bytes as SBP data, %zu bytes as msgpack\n",
                encodeOurs(payload()).size(), encodeMsgpack(payload()).size());
    benchmark::Initialize(&argc, argv);
    SummaryReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.printSummary();
    benchmark::Shutdown();
    return 0;
}
