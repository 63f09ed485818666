// Input streams: the checkpoint and rewind that let a reader parse a message again once the
// rest of it has arrived, refills that keep what a rewind needs, and a source's failures.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "TestText.h"
#include "rdr/BufferedInStream.h"
#include "rdr/Exceptions.h"
#include "rdr/MemInStream.h"

namespace {

using zeltest::format;

// A BufferedInStream over a script of chunks: each readData call hands out (part of) the next
// chunk, an empty chunk is one "nothing available now" answer, and so is an exhausted script
// unless `dry` says what the source throws then ("block", or the text of a failure).
struct ScriptedInStream : rdr::BufferedInStream {
    using rdr::BufferedInStream::BufferedInStream;
    std::deque<std::string> chunks;
    std::string dry;
    int calls = 0;
    size_t offered = 0;  // maxBytes of the last call
    size_t offset() const { return offset_; }

    size_t readData(void* dest, size_t maxBytes) override {
        ++calls;
        offered = maxBytes;
        if (chunks.empty()) {
            if (dry == "block") throw rdr::BlockException();
            if (!dry.empty()) throw plat::Exception(dry.c_str());
            return 0;
        }
        size_t n = std::min(maxBytes, chunks.front().size());
        std::memcpy(dest, chunks.front().data(), n);
        chunks.front().erase(0, n);
        if (chunks.front().empty()) chunks.pop_front();
        return n;
    }
};

std::string text(const uint8_t* p, size_t length) {
    return std::string(reinterpret_cast<const char*>(p), length);
}
std::string text(const zeltest::Bytes& bytes) {
    return text(bytes.data(), bytes.size());
}

// One step of a script: "+text" and "#hex" add a chunk ("+" alone an empty one), the others
// read or move and give what they return, or nothing.
std::string perform(ScriptedInStream& in, const std::vector<std::string>& f) {
    const std::string& op = f[0];
    auto n = [&](size_t k) { return static_cast<uint32_t>(std::stoul(f.at(k))); };
    char scratch[64];
    size_t count = f.size() > 2 ? n(2) : 0;
    if (op[0] == '+') return in.chunks.push_back(op.substr(1)), "";
    if (op[0] == '#') return in.chunks.push_back(text(zeltest::parseHex(op.substr(1)))), "";
    if (op == "u8") return std::string(1, static_cast<char>(in.readU8()));
    if (op == "u16") return format("%x", in.readU16());
    if (op == "u32") return format("%x", in.readU32());
    if (op == "b") return text(in.getBytes(scratch, n(1)), n(1));
    if (op == "str")
        return "'" + std::string(std::unique_ptr<char[]>(in.readString(n(1))).get()) + "'";
    if (op == "items" || op == "nowait") {
        const uint8_t* p = op == "items" ? in.getItems(scratch, n(1), &count)
                                         : in.getItemsNoWait(scratch, n(1), &count);
        return p ? std::to_string(count) + "*" + text(p, count * n(1)) : "null";
    }
    if (op == "skip") return in.skip(n(1)), "";
    if (op == "to") return in.reposition(static_cast<uint32_t>(n(1))), "";
    if (op == "rw") return in.rewind(), "";
    if (op == "fixed") return in.setRewindable(false), "";
    if (op == "dry") return in.dry = f.at(1), "";
    if (op == "cp") return std::to_string(in.setCheckpoint());
    if (op == "pos") return std::to_string(in.pos());
    if (op == "over") return std::to_string(in.overrun(false, n(1)));
    if (op == "avail") return std::to_string(in.available());
    if (op == "offset") return std::to_string(in.offset());
    if (op == "offered") return std::to_string(in.offered);
    if (op == "calls") return std::to_string(in.calls);
    ADD_FAILURE() << "unknown step " << op;
    return "";
}

// What the steps gave, space-separated; an exception shows as its text in brackets.
std::string run(ScriptedInStream& in, const std::string& script) {
    std::istringstream steps(script);
    std::string trace, step;
    while (steps >> step) {
        std::vector<std::string> fields;
        std::istringstream parts(step);
        for (std::string part; std::getline(parts, part, ':');) fields.push_back(part);
        std::string out;
        try {
            out = perform(in, fields);
        } catch (const rdr::BlockException&) {
            out = "[block]";
        } catch (const plat::Exception& e) {
            out = "[" + std::string(e.str()) + "]";
        }
        if (!out.empty()) trace += (trace.empty() ? "" : " ") + out;
    }
    return trace;
}

TEST(InStream, Scripts) {
    struct Case {
        const char* name;
        size_t bufferSize;  // 0: the default
        std::string script, trace;
    };
    std::vector<Case> cases = {
        {"a message cut anywhere rewinds to its checkpoint; integers are big-endian", 0,
         "#0909010203 u16 cp u32 pos #04000000056162 u32 cp u32 b:5 pos u32 over:4 pos +cde u32 "
         "b:5",
         "909 2 [block] 2 1020304 6 5 [block] 6 5 0 6 5 abcde"},
        {"a non-rewindable stream drops what was read at each refill", 8,
         "fixed +ABCD u8 u32 offset pos +E u32 rw",
         "A [block] 1 1 42434445 [Attempt to rewind a non-rewindable stream]"},
        {"an item longer than the buffer comes out piecewise", 4, "fixed +AB +CDEF +GHIJ b:10 pos",
         "ABCDEFGHIJ 10"},
        {"reposition goes no further back than the checkpoint", 8,
         "+01234 skip:2 cp skip:2 to:1 pos calls to:2 calls u8 to:7 pos +5678 to:7 u8",
         "2 [Can't reposition before checkpoint] 4 1 1 2 [block] 2 7"},
        {"a string at its maximum", 0, "#00000005 +xxxxx! str:5 u8", "'xxxxx' !"},
        {"an empty string", 0, "#00000000 +! str:0 u8", "'' !"},
        // Only the count is consumed, and no refill goes after the string's bytes.
        {"a string one over", 0, "#00000006 +xxxxxx! str:5 pos calls",
         "[String exceeds maximum length] 4 1"},
        {"a string one over nothing", 0, "#00000001 +x! str:0 pos calls",
         "[String exceeds maximum length] 4 1"},
        {"a string cut short", 0, "#000000046162 cp str:10 pos +cd str:10", "0 [block] 0 'abcd'"},
        {"whole items up to the request; getItemsNoWait returns null where getItems blocks", 16,
         "+aabbccd items:2:5 cp nowait:4:2 pos items:4:2 pos +ddd nowait:2:1",
         "3*aabbcc 6 null 6 [block] 6 1*dd"},
        {"one item not contiguous in the buffer comes in scratch", 4,
         "fixed +xyz +ABCDEFG skip:3 items:6:3", "1*ABCDEF"},
        // One byte left: the refill drops "ABCDE", keeps "FGH" at the buffer's start and
        // reads into the room that frees.
        {"a refill keeps the bytes after the checkpoint", 8,
         "+ABCDEFGH b:5 cp b:2 +IJKL b:2 offset offered pos rw pos b:7",
         "ABCDE 5 FG HI 5 5 9 5 FGHIJKL"},
        {"a message longer than the buffer from its checkpoint", 4, "+abcdef cp b:6",
         "0 [InStream overrun: buffer size exceeded]"},
        // A source may also say "would block" itself, as a non-blocking socket does.
        {"no data blocks once; other failures pass through", 8,
         "+ab + +cd cp u32 pos u32 +x dry:block cp over:2 pos avail dry:reset u16",
         "0 [block] 0 61626364 4 0 4 1 [reset]"},
    };
    Case many{"positions keep counting over many refills", 6, "", ""};
    for (unsigned i = 0; i < 50; ++i) many.script += format("#%08x ", i);
    for (unsigned i = 0; i < 50; ++i) {
        many.script += " cp u32";
        many.trace += format("%s%u %x", i ? " " : "", 4 * i, i);
    }
    cases.push_back(many);
    for (const Case& c : cases) {
        ScriptedInStream in(c.bufferSize);
        EXPECT_EQ(run(in, c.script), c.trace) << c.name;
    }
}

TEST(MemInStream, RunningOutIsEndOfStreamNotBlock) {
    const uint8_t data[] = {0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE};
    rdr::MemInStream in(data, sizeof data);
    EXPECT_EQ(in.readU32(), 0x12345678u);
    EXPECT_THROW(in.readU32(), rdr::EndOfStream);
    EXPECT_EQ(in.pos(), 4u);
    EXPECT_EQ(in.readU16(), 0x9ABCu);
    // An owned block is freed with the stream: leak checkers (ASan) fail the run otherwise.
    rdr::MemInStream owner(new uint8_t[3]{'a', 'b', 'c'}, 3, true);
    EXPECT_EQ(owner.readU8(), 'a');
}

}  // namespace
