// Both float paths, the bit copy and the arithmetic construction it stands in for, against
// the bit pattern itself (NaNs canonicalised), encoding and decoding, over every exponent of
// both formats and random patterns. Checking each path against the pattern rather than
// against the other keeps them from drifting together.
#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "sbp/SBPFloatBits.h"

namespace zelcdbsdk {
namespace {

template <typename F>
void expectBothPathsKeepEveryPattern() {
    using L = SBPFloatLayout<F>;
    using Bits = typename L::Bits;
    size_t failures = 0;
    auto check = [&](Bits pattern) {
        bool isNaN = (pattern & ~L::kSign) > L::kExponentMask;
        Bits expected = isNaN ? (pattern & L::kSign) | L::kExponentMask | L::kQuietBit : pattern;
        F value, decoded[2] = {sbpFloatFromBitsArithmetic<F>(pattern),
                               sbpFloatFromBitsCopied<F>(pattern)};
        std::memcpy(&value, &pattern, sizeof value);
        Bits results[4] = {sbpFloatBitsArithmetic(value), sbpFloatBitsCopied(value)};
        std::memcpy(&results[2], decoded, sizeof decoded);
        for (Bits result : results) {
            if (result != expected && ++failures <= 5) ADD_FAILURE() << std::hex << pattern;
        }
    };
    for (Bits sign : {Bits(0), L::kSign}) {
        for (Bits e = 0; e <= L::kExponentMask >> L::kFractionBits; ++e) {
            Bits high = sign | e << L::kFractionBits;
            for (Bits f : {Bits(0), L::kFractionMask / 3, L::kFractionMask - 1, L::kFractionMask}) {
                check(high | f);
            }
            // Each fraction bit and its neighbours (NaN payloads next to the quiet bit among
            // them); with e = 0 these are the subnormal boundaries.
            for (int k = 1; k < L::kFractionBits; ++k) {
                for (Bits f : {(Bits(1) << k) - 1, Bits(1) << k, (Bits(1) << k) + 1})
                    check(high | f);
            }
        }
    }
    std::mt19937_64 random(20240611);
    for (int i = 0; i < 500000; ++i) {
        Bits pattern = static_cast<Bits>(random());
        // And as many subnormals, where the arithmetic path takes its other branch.
        check(pattern);
        check(pattern & (L::kSign | L::kFractionMask));
    }
    EXPECT_EQ(failures, 0u);
}

TEST(FloatBitsTest, BothPathsKeepEveryFloatAndDoublePattern) {
    if (!sbpFloatBitsNative<float>() || !sbpFloatBitsNative<double>()) GTEST_SKIP();
    expectBothPathsKeepEveryPattern<float>();
    expectBothPathsKeepEveryPattern<double>();
}

}  // namespace
}  // namespace zelcdbsdk
