// The bit-copying float path against the arithmetic construction it stands in for, over
// random patterns and every boundary of both formats, in both directions. Also pins the
// arithmetic path itself to known patterns so that both cannot drift together.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "sbp/SBPFloatBits.h"

namespace {

using zelcdbsdk::sbpFloatBitsArithmetic;
using zelcdbsdk::sbpFloatBitsCopied;
using zelcdbsdk::sbpFloatFromBitsArithmetic;
using zelcdbsdk::sbpFloatFromBitsCopied;

template <typename F>
using BitsOf = typename zelcdbsdk::SBPFloatFormat<F>::Bits;

template <typename F>
BitsOf<F> rawBits(F value) {
    BitsOf<F> bits;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}

template <typename F>
F fromRaw(BitsOf<F> bits) {
    F value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

// Patterns worth checking for a format: signs x (zero, subnormal edges, normal edges around
// every exponent, infinity, NaNs with and without payloads), then random ones.
template <typename F>
std::vector<BitsOf<F>> sweep(size_t randomCount) {
    using L = zelcdbsdk::SBPFloatLayout<F>;
    using Bits = BitsOf<F>;
    std::vector<Bits> patterns;
    const Bits fractions[] = {0,
                              1,
                              2,
                              3,
                              L::kQuietBit - 1,
                              L::kQuietBit,
                              L::kQuietBit + 1,
                              L::kFractionMask - 1,
                              L::kFractionMask,
                              L::kFractionMask / 3,
                              Bits(0x5555555555555555ull) & L::kFractionMask};
    Bits exponents = L::kExponentMask >> L::kFractionBits;
    for (Bits sign : {Bits(0), L::kSign}) {
        for (Bits e = 0; e <= exponents; ++e) {
            for (Bits f : fractions) patterns.push_back(sign | e << L::kFractionBits | f);
            // Each fraction bit on its own and its neighbours: for e = 0 these are the
            // subnormal boundaries, where the value's binary exponent changes.
            for (int k = 1; k < L::kFractionBits; ++k) {
                Bits power = Bits(1) << k;
                for (Bits f : {power - 1, power, power + 1}) {
                    patterns.push_back(sign | e << L::kFractionBits | f);
                }
            }
        }
    }
    std::mt19937_64 random(20240611);
    for (size_t i = 0; i < randomCount; ++i) {
        Bits pattern = static_cast<Bits>(random());
        patterns.push_back(pattern);
        // As many subnormals, where the arithmetic path takes its other branch.
        patterns.push_back(pattern & (L::kSign | L::kFractionMask));
    }
    return patterns;
}

template <typename F>
void expectPathsAgree(size_t randomCount) {
    using Bits = BitsOf<F>;
    using L = zelcdbsdk::SBPFloatLayout<F>;
    size_t mismatches = 0;
    for (Bits pattern : sweep<F>(randomCount)) {
        F value = fromRaw<F>(pattern);
        Bits arithmetic = sbpFloatBitsArithmetic(value);
        Bits copied = sbpFloatBitsCopied(value);
        // Encoding keeps every bit except a NaN's payload.
        bool isNaN = (pattern & ~L::kSign) > L::kExponentMask;
        Bits expected = isNaN ? (pattern & L::kSign) | L::kExponentMask | L::kQuietBit : pattern;
        Bits decodedArithmetic = rawBits(sbpFloatFromBitsArithmetic<F>(pattern));
        Bits decodedCopied = rawBits(sbpFloatFromBitsCopied<F>(pattern));
        if (arithmetic != expected || copied != expected || decodedArithmetic != expected ||
            decodedCopied != expected) {
            if (++mismatches <= 5) {
                ADD_FAILURE() << std::hex << "pattern " << pattern << ": encode " << arithmetic
                              << "/" << copied << ", decode " << decodedArithmetic << "/"
                              << decodedCopied;
            }
        }
    }
    EXPECT_EQ(mismatches, 0u);
}

TEST(FloatBitsTest, CopiedFloatBitsMatchTheArithmeticConstruction) {
    if (!zelcdbsdk::sbpFloatBitsNative<float>()) GTEST_SKIP() << "no IEEE 754 floats here";
    expectPathsAgree<float>(500000);
}

TEST(FloatBitsTest, CopiedDoubleBitsMatchTheArithmeticConstruction) {
    if (!zelcdbsdk::sbpFloatBitsNative<double>()) GTEST_SKIP() << "no IEEE 754 doubles here";
    expectPathsAgree<double>(500000);
}

TEST(FloatBitsTest, ArithmeticPathGivesTheKnownPatterns) {
    EXPECT_EQ(sbpFloatBitsArithmetic(1.0f), 0x3F800000u);
    EXPECT_EQ(sbpFloatBitsArithmetic(-0.0f), 0x80000000u);
    EXPECT_EQ(sbpFloatBitsArithmetic(-2.5f), 0xC0200000u);
    EXPECT_EQ(sbpFloatBitsArithmetic(std::numeric_limits<float>::max()), 0x7F7FFFFFu);
    EXPECT_EQ(sbpFloatBitsArithmetic(std::numeric_limits<float>::min()), 0x00800000u);
    EXPECT_EQ(sbpFloatBitsArithmetic(std::numeric_limits<float>::denorm_min()), 0x00000001u);
    EXPECT_EQ(sbpFloatBitsArithmetic(-std::numeric_limits<float>::infinity()), 0xFF800000u);
    EXPECT_EQ(sbpFloatBitsArithmetic(-std::numeric_limits<float>::quiet_NaN()), 0xFFC00000u);
    EXPECT_EQ(sbpFloatBitsArithmetic(1.0), 0x3FF0000000000000u);
    EXPECT_EQ(sbpFloatBitsArithmetic(0.1), 0x3FB999999999999Au);
    EXPECT_EQ(sbpFloatBitsArithmetic(std::numeric_limits<double>::denorm_min()), 1u);
    EXPECT_EQ(sbpFloatBitsArithmetic(std::numeric_limits<double>::max()), 0x7FEFFFFFFFFFFFFFu);
    EXPECT_EQ(sbpFloatBitsArithmetic(std::numeric_limits<double>::signaling_NaN()),
              0x7FF8000000000000u);

    EXPECT_EQ(sbpFloatFromBitsArithmetic<float>(0x40490FDBu), 3.14159274f);
    EXPECT_EQ(sbpFloatFromBitsArithmetic<double>(0x0000000000000001u),
              std::numeric_limits<double>::denorm_min());
    EXPECT_EQ(sbpFloatFromBitsArithmetic<double>(0xFFF0000000000000u),
              -std::numeric_limits<double>::infinity());
    double nan = sbpFloatFromBitsArithmetic<double>(0xFFF0000000000001u);
    EXPECT_TRUE(std::isnan(nan));
    EXPECT_TRUE(std::signbit(nan));
}

}  // namespace
