#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

// IEEE 754 bit patterns of floats and doubles as the SBP data encoding carries them.
//
// The reference is the arithmetic construction (frexp/ldexp and repeated doubling), which
// gives the same bytes whatever the processor's own float format. Every NaN becomes the
// quiet NaN with its sign and no payload, in both directions, because peers do the same.
// Where the host's floats are IEEE 754 in integer byte order, copying the bit pattern and
// canonicalising NaNs gives identical results much faster; tests check the two against
// each other.
namespace zelcdbsdk {

template <typename F>
struct SBPFloatFormat;

template <>
struct SBPFloatFormat<float> {
    using Bits = uint32_t;
    static constexpr int kMinExponent = -126;
    static constexpr int kMaxExponent = 128;
    static constexpr int kExponentBits = 8;
};

template <>
struct SBPFloatFormat<double> {
    using Bits = uint64_t;
    static constexpr int kMinExponent = -1022;
    static constexpr int kMaxExponent = 1024;
    static constexpr int kExponentBits = 11;
};

template <typename F>
struct SBPFloatLayout : SBPFloatFormat<F> {
    using Bits = typename SBPFloatFormat<F>::Bits;
    static constexpr int kTotalBits = static_cast<int>(sizeof(Bits)) * 8;
    static constexpr int kFractionBits = kTotalBits - 1 - SBPFloatFormat<F>::kExponentBits;
    static constexpr Bits kSign = Bits(1) << (kTotalBits - 1);
    static constexpr Bits kExponentMask = ((Bits(1) << SBPFloatFormat<F>::kExponentBits) - 1)
                                          << kFractionBits;
    static constexpr Bits kFractionMask = (Bits(1) << kFractionBits) - 1;
    static constexpr Bits kQuietBit = Bits(1) << (kFractionBits - 1);
};

#if defined(__FLOAT_WORD_ORDER__) && defined(__BYTE_ORDER__) && \
    __FLOAT_WORD_ORDER__ == __BYTE_ORDER__
constexpr bool kSBPFloatWordOrderNative = true;
#else
constexpr bool kSBPFloatWordOrderNative = false;
#endif

// True when F's object representation is its IEEE 754 bit pattern in integer byte order.
template <typename F>
constexpr bool sbpFloatBitsNative() {
    return kSBPFloatWordOrderNative && std::numeric_limits<F>::is_iec559 &&
           sizeof(F) == sizeof(typename SBPFloatFormat<F>::Bits);
}

template <typename F>
typename SBPFloatFormat<F>::Bits sbpFloatBitsArithmetic(F value) {
    using L = SBPFloatLayout<F>;
    using Bits = typename L::Bits;
    Bits bits = 0;
    if (std::signbit(value)) {
        bits = L::kSign;
        value = -value;
    }
    if (std::isnan(value)) return bits | L::kExponentMask | L::kQuietBit;
    if (std::isinf(value)) return bits | L::kExponentMask;
    if (value == 0) return bits;
    int e = 0;
    F fraction = std::frexp(value, &e) * 2 - 1;
    int exponent = e - 1;
    if (exponent > L::kMaxExponent) return bits | L::kExponentMask;
    if (exponent >= L::kMinExponent) {
        bits |= static_cast<Bits>(exponent + L::kMaxExponent - 1) << L::kFractionBits;
    } else {
        fraction = std::ldexp(value, -L::kMinExponent);
    }
    for (int bit = L::kFractionBits - 1; bit >= 0 && fraction != 0; --bit) {
        fraction += fraction;
        if (fraction >= 1) {
            bits |= Bits(1) << bit;
            fraction -= 1;
        }
    }
    return bits;
}

template <typename F>
F sbpFloatFromBitsArithmetic(typename SBPFloatFormat<F>::Bits bits) {
    using L = SBPFloatLayout<F>;
    using Bits = typename L::Bits;
    Bits field = (bits & L::kExponentMask) >> L::kFractionBits;
    Bits fraction = bits & L::kFractionMask;
    F magnitude;
    if ((bits & L::kExponentMask) == L::kExponentMask) {
        magnitude = fraction == 0 ? std::numeric_limits<F>::infinity()
                                  : std::numeric_limits<F>::quiet_NaN();
    } else if (field == 0) {
        // Zero or subnormal: fraction x 2^minimum exponent.
        magnitude = std::ldexp(static_cast<F>(fraction), L::kMinExponent - L::kFractionBits);
    } else {
        magnitude = std::ldexp(static_cast<F>(fraction | (Bits(1) << L::kFractionBits)),
                               static_cast<int>(field) - (L::kMaxExponent - 1) - L::kFractionBits);
    }
    return std::copysign(magnitude, (bits & L::kSign) != 0 ? F(-1) : F(1));
}

// Only meaningful where sbpFloatBitsNative<F>() holds.
template <typename F>
typename SBPFloatFormat<F>::Bits sbpFloatBitsCopied(F value) {
    using L = SBPFloatLayout<F>;
    typename L::Bits bits;
    std::memcpy(&bits, &value, sizeof bits);
    if ((bits & ~L::kSign) > L::kExponentMask) {
        bits = (bits & L::kSign) | L::kExponentMask | L::kQuietBit;
    }
    return bits;
}

template <typename F>
F sbpFloatFromBitsCopied(typename SBPFloatFormat<F>::Bits bits) {
    using L = SBPFloatLayout<F>;
    if ((bits & ~L::kSign) > L::kExponentMask) {
        return std::copysign(std::numeric_limits<F>::quiet_NaN(),
                             (bits & L::kSign) != 0 ? F(-1) : F(1));
    }
    F value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

template <typename F>
inline typename SBPFloatFormat<F>::Bits sbpFloatBits(F value) {
    if constexpr (sbpFloatBitsNative<F>()) {
        return sbpFloatBitsCopied(value);
    } else {
        return sbpFloatBitsArithmetic(value);
    }
}

template <typename F>
inline F sbpFloatFromBits(typename SBPFloatFormat<F>::Bits bits) {
    if constexpr (sbpFloatBitsNative<F>()) {
        return sbpFloatFromBitsCopied<F>(bits);
    } else {
        return sbpFloatFromBitsArithmetic<F>(bits);
    }
}

}  // namespace zelcdbsdk
