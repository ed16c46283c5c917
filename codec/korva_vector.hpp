// Sixteen bytes at a time, in the compilers' own vector types; the operations that those lack have
// their instructions here. For the codecs.
#pragma once

#if defined(__aarch64__)
#include <arm_neon.h>
#else
#include <smmintrin.h>
#endif

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <utility>

#include "codec/korva_inlined.hpp"

namespace korva {

inline constexpr uint32_t kVectorWidth = 16;

template <class Lane>
using Vector [[gnu::vector_size(kVectorWidth)]] = Lane;
using ByteVector = Vector<uint8_t>;

// Takes each byte from the position that its index names, or 0 if the index is kTakesZero.
inline constexpr uint8_t kTakesZero = 0x80;
[[gnu::always_inline]] inline ByteVector permute(ByteVector bytes, ByteVector indices) {
#if defined(__aarch64__)
  return reinterpret_cast<ByteVector>(
      vqtbl1q_u8(reinterpret_cast<uint8x16_t>(bytes), reinterpret_cast<uint8x16_t>(indices)));
#else
  return reinterpret_cast<ByteVector>(
      _mm_shuffle_epi8(reinterpret_cast<__m128i>(bytes), reinterpret_cast<__m128i>(indices)));
#endif
}

// Keeps Clang 16 from joining comparisons of one vector in lanes of different widths: for x86-64 it
// takes the outcome of one for that of the other.
[[gnu::always_inline]] inline ByteVector keptApart(ByteVector compared) {
#if defined(__clang__) && defined(__x86_64__)
  asm("" : "+x"(compared));
#endif
  return compared;
}

// Keeps GCC from loading a vector a second time instead of copying it.
[[gnu::always_inline]] inline ByteVector loadedOnce(ByteVector loaded) {
#if defined(__x86_64__)
  asm("" : "+x"(loaded));
#endif
  return loaded;
}

// Keeps the compilers from computing a number or an address again for each of its uses.
template <class Value>
[[gnu::always_inline]] inline Value computedOnce(Value value) {
  asm("" : "+r"(value));
  return value;
}

// Loads Size bytes, and nothing after them; the rest is 0.
template <uint32_t Size>
[[gnu::always_inline]] inline ByteVector loadVector(const uint8_t* at) {
  static_assert(Size <= kVectorWidth);
  if constexpr (Size == kVectorWidth) {
    ByteVector vector;
    std::memcpy(&vector, at, Size);
    return vector;
  } else {
    constexpr uint32_t kLow = Size < sizeof(uint64_t) ? Size : sizeof(uint64_t);
    Vector<uint64_t> words{};
    uint64_t word = 0;
    std::memcpy(&word, at, kLow);
    words[0] = word;
    if constexpr (Size > kLow) {
      word = 0;
      std::memcpy(&word, at + kLow, Size - kLow);
      words[1] = word;
    }
    return std::bit_cast<ByteVector>(words);
  }
}

// Loads an aligned vector, which saves x86-64 an instruction for each operation.
[[gnu::always_inline]] inline ByteVector loadAligned(const void* at) {
  ByteVector vector;
  std::memcpy(&vector, __builtin_assume_aligned(at, kVectorWidth), kVectorWidth);
  return vector;
}

[[gnu::always_inline]] inline void storeVector(uint8_t* at, ByteVector vector) {
  std::memcpy(at, &vector, kVectorWidth);
}

// Stores the last Size bytes of a vector, a multiple of four, so that they end at end, and nothing
// before them.
template <uint32_t Size>
[[gnu::always_inline]] inline void storeVectorTail(uint8_t* end, ByteVector vector) {
  static_assert(Size <= kVectorWidth && Size % sizeof(uint32_t) == 0);
  if constexpr (Size == kVectorWidth) {
    storeVector(end - kVectorWidth, vector);
  } else {
    if constexpr (Size >= sizeof(uint64_t)) {
      const uint64_t last = std::bit_cast<Vector<uint64_t>>(vector)[1];
      std::memcpy(end - sizeof last, &last, sizeof last);
    }
    if constexpr (Size % sizeof(uint64_t) != 0) {
      const uint32_t lane = std::bit_cast<Vector<uint32_t>>(vector)[4 - Size / sizeof(uint32_t)];
      std::memcpy(end - Size, &lane, sizeof lane);
    }
  }
}

// Stores the last lane within the first Size bytes of a vector, if their number is odd.
template <class Lane, uint32_t Size>
[[gnu::always_inline]] inline void storeOddLane(uint8_t* at, ByteVector vector) {
  if constexpr (constexpr uint32_t kCount = Size / sizeof(Lane); kCount % 2 == 1) {
    const Lane lane = std::bit_cast<Vector<Lane>>(vector)[kCount - 1];
    std::memcpy(at + (kCount - 1) * sizeof lane, &lane, sizeof lane);
  }
}

// Stores the first Size bytes of a vector, and nothing after them.
template <uint32_t Size>
[[gnu::always_inline]] inline void storeVectorFront(uint8_t* at, ByteVector vector) {
  static_assert(Size <= kVectorWidth);
  if constexpr (Size == kVectorWidth) {
    storeVector(at, vector);
  } else {
    storeOddLane<uint64_t, Size>(at, vector);
    storeOddLane<uint32_t, Size>(at, vector);
    storeOddLane<uint16_t, Size>(at, vector);
    storeOddLane<uint8_t, Size>(at, vector);
  }
}

// What follows a vector's first bytes, moved to its front.
template <uint32_t Bytes>
[[gnu::always_inline]] inline ByteVector shiftDown(ByteVector bytes) {
  static_assert(Bytes < kVectorWidth);
  return [&]<size_t... Byte>(std::index_sequence<Byte...>) KORVA_INLINED {
    return __builtin_shufflevector(bytes, ByteVector{}, (Bytes + Byte)...);
  }(std::make_index_sequence<kVectorWidth>());
}

// Eight of a vector's bytes, from First on, as numbers of two bytes.
template <uint32_t First>
[[gnu::always_inline]] inline ByteVector widen(ByteVector bytes) {
  static_assert(First + kVectorWidth / 2 <= kVectorWidth);
  return [&]<size_t... Byte>(std::index_sequence<Byte...>) KORVA_INLINED {
    return __builtin_shufflevector(bytes, ByteVector{},
                                   (First + Byte / 2 + Byte % 2 * kVectorWidth)...);
  }(std::make_index_sequence<kVectorWidth>());
}

// Saturating subtraction of bytes: what would be less than 0 is 0.
[[gnu::always_inline]] inline ByteVector subtractSaturating(ByteVector from, ByteVector what) {
#if defined(__aarch64__)
  return reinterpret_cast<ByteVector>(
      vqsubq_u8(reinterpret_cast<uint8x16_t>(from), reinterpret_cast<uint8x16_t>(what)));
#else
  return reinterpret_cast<ByteVector>(
      _mm_subs_epu8(reinterpret_cast<__m128i>(from), reinterpret_cast<__m128i>(what)));
#endif
}

#if defined(__x86_64__)
// The top bits of all lanes as a number, the first lane's lowest. It is as wide as an offset, or
// GCC would shift it in two steps.
template <uint32_t Width>
[[gnu::always_inline]] inline size_t signMask(ByteVector lanes) {
  if constexpr (Width == sizeof(uint64_t)) {
    return static_cast<size_t>(_mm_movemask_pd(reinterpret_cast<__m128d>(lanes)));
  } else if constexpr (Width == sizeof(uint32_t)) {
    return static_cast<size_t>(_mm_movemask_ps(reinterpret_cast<__m128>(lanes)));
  } else {
    static_assert(Width == sizeof(uint8_t));
    return static_cast<size_t>(_mm_movemask_epi8(reinterpret_cast<__m128i>(lanes)));
  }
}
#endif

[[gnu::always_inline]] inline bool isZero(ByteVector bytes) {
#if defined(__aarch64__)
  return vmaxvq_u32(reinterpret_cast<uint32x4_t>(bytes)) == 0;
#else
  return _mm_testz_si128(reinterpret_cast<__m128i>(bytes), reinterpret_cast<__m128i>(bytes)) != 0;
#endif
}

// Four vectors as one: a byte for every four of theirs, 0 if those four are 0, and anything else if
// not.
[[gnu::always_inline]] inline ByteVector narrowToQuarter(const std::array<ByteVector, 4>& vectors) {
#if defined(__aarch64__)
  const auto halve = [&](size_t first) KORVA_INLINED {
    return vqmovn_high_s32(vqmovn_s32(reinterpret_cast<int32x4_t>(vectors[first])),
                           reinterpret_cast<int32x4_t>(vectors[first + 1]));
  };
  return reinterpret_cast<ByteVector>(vqmovn_high_s16(vqmovn_s16(halve(0)), halve(2)));
#else
  const auto halve = [&](size_t first) KORVA_INLINED {
    return _mm_packs_epi32(reinterpret_cast<__m128i>(vectors[first]),
                           reinterpret_cast<__m128i>(vectors[first + 1]));
  };
  return reinterpret_cast<ByteVector>(_mm_packs_epi16(halve(0), halve(2)));
#endif
}

// The sum of all sixteen bytes.
[[gnu::always_inline]] inline uint32_t sumOfBytes(ByteVector bytes) {
#if defined(__aarch64__)
  return vaddlvq_u8(reinterpret_cast<uint8x16_t>(bytes));
#else
  const auto halves = reinterpret_cast<Vector<uint64_t>>(
      _mm_sad_epu8(reinterpret_cast<__m128i>(bytes), _mm_setzero_si128()));
  return static_cast<uint32_t>(halves[0] + halves[1]);
#endif
}

// kHasPopcount: whether one instruction counts the bits of a number. Only then is there
// countSetBytes: how many of the bytes that Mask names are all ones; each must be all ones or 0.
#if defined(__aarch64__)
inline constexpr bool kHasPopcount = false;
template <auto Mask>
size_t countSetBytes(ByteVector bytes) = delete;
#else
inline constexpr bool kHasPopcount = true;
template <auto Mask>
[[gnu::always_inline]] inline size_t countSetBytes(ByteVector bytes) {
  constexpr size_t kNamed = [] {
    size_t named = 0;
    for (uint32_t i = 0; i < kVectorWidth; ++i) {
      named |= size_t{Mask[i] != 0} << i;
    }
    return named;
  }();
  return static_cast<size_t>(std::popcount(signMask<1>(bytes) & kNamed));
}
#endif

// Whether Positions are those of adjacent lanes of Width bytes.
template <auto Positions, uint32_t Width>
inline constexpr bool kAreAdjacent = [] {
  for (uint32_t i = 0; i < Positions.size(); ++i) {
    if (Positions[i] != Positions[0] + i * Width || Positions[i] % Width != 0) {
      return false;
    }
  }
  return true;
}();

// Factor times the number whose bit i says whether the lane of Width bytes at Positions[i] is all
// ones; each of those must be all ones or 0. On x86-64, lanes of two bytes and lanes that are not
// adjacent are gathered by a permutation, whose indices are loaded; it shifts them as well, so that
// a power of two in the factor costs nothing.
template <auto Positions, uint32_t Width, size_t Factor>
[[gnu::always_inline]] inline size_t scaledLaneMask(ByteVector bytes) {
#if defined(__aarch64__)
  static_assert(Positions.size() <= 8);
  constexpr size_t kWeighed = Factor << Positions.size() <= 256 ? Factor : 1;
  alignas(kVectorWidth) static constexpr auto kWeights = [] {
    std::array<uint8_t, kVectorWidth> weights{};
    for (uint32_t i = 0; i < Positions.size(); ++i) {
      weights.at(Positions[i]) = static_cast<uint8_t>(kWeighed << i);
    }
    return weights;
  }();
  const ByteVector weighted = bytes & loadAligned(kWeights.data());
  return vaddvq_u8(reinterpret_cast<uint8x16_t>(weighted)) * (Factor / kWeighed);
#else
  if constexpr (Width != sizeof(uint16_t) && kAreAdjacent<Positions, Width>) {
    constexpr size_t kAll = (size_t{1} << Positions.size()) - 1;
    const size_t number = signMask<Width>(bytes) >> (Positions[0] / Width);
    return (Positions.size() * Width == kVectorWidth ? number : number & kAll) * Factor;
  }
  constexpr uint32_t kShift = std::countr_zero(Factor);
  static_assert(Positions.size() + kShift <= kVectorWidth);
  alignas(kVectorWidth) static constexpr auto kIndices = [] {
    std::array<uint8_t, kVectorWidth> indices{};
    indices.fill(kTakesZero);
    std::ranges::copy(Positions, indices.begin() + kShift);
    return indices;
  }();
  const ByteVector moved = permute(bytes, loadAligned(kIndices.data()));
  return signMask<1>(moved) * (Factor >> kShift);
#endif
}

}  // namespace korva
