#include "BgrToNv12.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#elif defined(__aarch64__)
#include <arm_neon.h>
#endif

// Plain loops over 16-bit lanes that the compiler vectorises, inlined into one function per
// instruction set. Only the deinterleaving of BGR uses intrinsics.
//
// Two neighbouring pixels share a word, the left one in its low byte. Lanes hold either all low or
// all high bytes, so no value is shuffled, and U and V are interleaved without a further step.
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the left pixel is a word's low byte");

namespace media_backend {
namespace {

using Lane = std::int16_t;
using Word = std::uint16_t;

constexpr unsigned kPixels = 64;  // converted at a time, from each of two rows
constexpr unsigned kWords = kPixels / 2;

struct Planes {
  alignas(64) Word b[kWords];
  alignas(64) Word g[kWords];
  alignas(64) Word r[kWords];
};

struct Nv12Block {
  alignas(64) Word luma[2][kWords];
  alignas(64) Word chroma[kWords];
  alignas(64) Word isExact[2][kWords];  // 0xff: luma is a whole number and the pixel not grey
};

[[gnu::always_inline]] inline std::uint8_t lumaOf(unsigned b, unsigned g, unsigned r) {
  return static_cast<std::uint8_t>(std::fma(0.114, b, std::fma(0.299, r, 0.587 * g)));
}

// One bit for each grey whose luma rounds down: lumaOf(grey, grey, grey) == grey - 1. These are
// converted as the next darker grey, since all greys have the same chroma. Precomputed, because
// std::fma() is not constexpr.
constexpr std::array<std::uint8_t, 32> kRoundDownGreys = {
    0x16, 0x21, 0x21, 0x8c, 0x81, 0x84, 0x52, 0xea, 0x01, 0x40, 0x32, 0xc8, 0x04, 0x91, 0x44, 0xd4,
    0x81, 0x08, 0x20, 0x18, 0x04, 0x87, 0xc0, 0x50, 0x18, 0x0a, 0x03, 0xc1, 0x90, 0x98, 0x12, 0x53,
};

using SplitFunction = void (*)(const std::uint8_t* bgr, Planes& planes);

inline void splitPortable(const std::uint8_t* bgr, Planes& planes) {
  auto* const b = reinterpret_cast<std::uint8_t*>(planes.b);
  auto* const g = reinterpret_cast<std::uint8_t*>(planes.g);
  auto* const r = reinterpret_cast<std::uint8_t*>(planes.r);
  for (unsigned i = 0; i < kPixels; ++i, bgr += 3) {
    const bool grey = bgr[0] == bgr[1] && bgr[1] == bgr[2];
    const int decrement = grey ? kRoundDownGreys[bgr[1] / 8] >> (bgr[1] % 8) & 1 : 0;
    b[i] = static_cast<std::uint8_t>(bgr[0] - decrement);
    g[i] = static_cast<std::uint8_t>(bgr[1] - decrement);
    r[i] = static_cast<std::uint8_t>(bgr[2] - decrement);
  }
}

#if defined(__x86_64__)

[[gnu::target("avx2,fma")]] inline void splitAvx2(const std::uint8_t* bgr, Planes& planes) {
  const __m256i third0 = _mm256_broadcastsi128_si256(
      _mm_setr_epi8(-1, 0, 0, -1, 0, 0, -1, 0, 0, -1, 0, 0, -1, 0, 0, -1));
  const __m256i third1 = _mm256_broadcastsi128_si256(
      _mm_setr_epi8(0, -1, 0, 0, -1, 0, 0, -1, 0, 0, -1, 0, 0, -1, 0, 0));
  const __m256i third2 = _mm256_broadcastsi128_si256(
      _mm_setr_epi8(0, 0, -1, 0, 0, -1, 0, 0, -1, 0, 0, -1, 0, 0, -1, 0));
  const __m256i orderB = _mm256_broadcastsi128_si256(
      _mm_setr_epi8(0, 3, 6, 9, 12, 15, 2, 5, 8, 11, 14, 1, 4, 7, 10, 13));
  const __m256i orderG = _mm256_broadcastsi128_si256(
      _mm_setr_epi8(1, 4, 7, 10, 13, 0, 3, 6, 9, 12, 15, 2, 5, 8, 11, 14));
  const __m256i orderR = _mm256_broadcastsi128_si256(
      _mm_setr_epi8(2, 5, 8, 11, 14, 1, 4, 7, 10, 13, 0, 3, 6, 9, 12, 15));
  const __m256i bitOf = _mm256_set1_epi64x(static_cast<long long>(0x8040201008040201ULL));
  const auto* const bits = reinterpret_cast<const __m128i*>(kRoundDownGreys.data());
  const __m256i roundDownDark = _mm256_broadcastsi128_si256(_mm_loadu_si128(bits));
  const __m256i roundDownBright = _mm256_broadcastsi128_si256(_mm_loadu_si128(bits + 1));

  for (unsigned i = 0; i < kPixels; i += 32) {
    // Lower halves hold pixels 0 to 15 in 48 bytes, upper halves pixels 16 to 31.
    const auto* const in = reinterpret_cast<const __m128i*>(bgr + std::size_t{3} * i);
    const __m256i v0 = _mm256_inserti128_si256(_mm256_castsi128_si256(_mm_loadu_si128(in)),
                                               _mm_loadu_si128(in + 3), 1);
    const __m256i v1 = _mm256_inserti128_si256(_mm256_castsi128_si256(_mm_loadu_si128(in + 1)),
                                               _mm_loadu_si128(in + 4), 1);
    const __m256i v2 = _mm256_inserti128_si256(_mm256_castsi128_si256(_mm_loadu_si128(in + 2)),
                                               _mm_loadu_si128(in + 5), 1);
    const __m256i b = _mm256_shuffle_epi8(
        _mm256_blendv_epi8(_mm256_blendv_epi8(v0, v1, third2), v2, third1), orderB);
    const __m256i g = _mm256_shuffle_epi8(
        _mm256_blendv_epi8(_mm256_blendv_epi8(v0, v1, third0), v2, third2), orderG);
    const __m256i r = _mm256_shuffle_epi8(
        _mm256_blendv_epi8(_mm256_blendv_epi8(v0, v1, third1), v2, third0), orderR);

    const __m256i byte = _mm256_and_si256(_mm256_srli_epi16(g, 3), _mm256_set1_epi8(31));
    const __m256i bit = _mm256_shuffle_epi8(bitOf, _mm256_and_si256(g, _mm256_set1_epi8(7)));
    const __m256i eight = _mm256_blendv_epi8(_mm256_shuffle_epi8(roundDownDark, byte),
                                             _mm256_shuffle_epi8(roundDownBright, byte), g);
    const __m256i grey = _mm256_and_si256(_mm256_cmpeq_epi8(b, g), _mm256_cmpeq_epi8(g, r));
    const __m256i decrement =
        _mm256_and_si256(grey, _mm256_cmpeq_epi8(_mm256_and_si256(eight, bit), bit));
    _mm256_store_si256(reinterpret_cast<__m256i*>(planes.b + i / 2), _mm256_add_epi8(b, decrement));
    _mm256_store_si256(reinterpret_cast<__m256i*>(planes.g + i / 2), _mm256_add_epi8(g, decrement));
    _mm256_store_si256(reinterpret_cast<__m256i*>(planes.r + i / 2), _mm256_add_epi8(r, decrement));
  }
}

#elif defined(__aarch64__)

inline void splitNeon(const std::uint8_t* bgr, Planes& planes) {
  auto* const b = reinterpret_cast<std::uint8_t*>(planes.b);
  auto* const g = reinterpret_cast<std::uint8_t*>(planes.g);
  auto* const r = reinterpret_cast<std::uint8_t*>(planes.r);
  const uint8x16x2_t bits = {
      {vld1q_u8(kRoundDownGreys.data()), vld1q_u8(kRoundDownGreys.data() + 16)}};
  for (unsigned i = 0; i < kPixels; i += 16) {
    const uint8x16x3_t in = vld3q_u8(bgr + std::size_t{3} * i);
    const uint8x16_t eight = vqtbl2q_u8(bits, vshrq_n_u8(in.val[1], 3));
    const int8x16_t place = vreinterpretq_s8_u8(vandq_u8(in.val[1], vdupq_n_u8(7)));
    const uint8x16_t isRoundedDown = vtstq_u8(eight, vshlq_u8(vdupq_n_u8(1), place));
    const uint8x16_t isGrey =
        vandq_u8(vceqq_u8(in.val[0], in.val[1]), vceqq_u8(in.val[1], in.val[2]));
    const uint8x16_t decrement = vandq_u8(isRoundedDown, isGrey);
    vst1q_u8(b + i, vaddq_u8(in.val[0], decrement));
    vst1q_u8(g + i, vaddq_u8(in.val[1], decrement));
    vst1q_u8(r + i, vaddq_u8(in.val[2], decrement));
  }
}

#endif

// g + floor((299 rg + 114 bg) / 1000), where rg = r - g and bg = b - g. The quotient is estimated
// with 8-bit coefficients and a bias that makes it exact or one too high; a negative remainder
// means one too high. The remainder fits a lane, so 16-bit overflow of its terms cancels out.
[[gnu::always_inline]] inline Lane luma(Lane g, Lane rg, Lane bg, Word& isExact) {
  constexpr int kBias = 117;
  const auto scaled = static_cast<Lane>(77 * rg + 29 * bg + kBias);
  const auto quotient = static_cast<Lane>(scaled >> 8);
  const auto remainder = static_cast<Lane>(299 * rg + 114 * bg - 1000 * quotient);
  const auto hasColour = static_cast<Lane>(rg | bg);
  isExact = static_cast<Word>((remainder == 0 ? 0xffff : 0) & (hasColour == 0 ? 0 : 0xffff));
  return static_cast<Lane>(g + quotient + static_cast<Lane>(remainder >> 15));
}

// floor(ownDiff / 2 - c * otherDiff), computed as (ownDiff + floor(-2 * c * otherDiff)) >> 1, which
// is equal because ownDiff is an integer. `ownDiff`: difference to green of the component that this
// chroma value encodes; `otherDiff`: that of the other one. Factor is 2 * c as a 16-bit fraction,
// which gives the correct floor for each of the 511 differences.
template <int Factor>
[[gnu::always_inline]] inline Lane chroma(Lane ownDiff, Lane otherDiff) {
  const auto share = static_cast<Lane>(-Factor * otherDiff >> 16);
  return static_cast<Lane>(static_cast<Lane>(ownDiff + share) >> 1);
}

struct ChromaSum {
  Lane u = 0;
  Lane v = 0;
};

[[gnu::always_inline]] inline Lane addPixel(int b, int g, int r, ChromaSum& sum, Word& isExact) {
  const auto rg = static_cast<Lane>(r - g);
  const auto bg = static_cast<Lane>(b - g);
  sum.u = static_cast<Lane>(sum.u + chroma<22117>(bg, rg));
  sum.v = static_cast<Lane>(sum.v + chroma<10658>(rg, bg));
  return luma(static_cast<Lane>(g), rg, bg, isExact);
}

[[gnu::always_inline]] inline Word addWord(Word b, Word g, Word r, ChromaSum& sum, Word& isExact) {
  Word exactLeft = 0;
  Word exactRight = 0;
  const Lane left = addPixel(b & 0xff, g & 0xff, r & 0xff, sum, exactLeft);
  const Lane right = addPixel(b >> 8, g >> 8, r >> 8, sum, exactRight);
  isExact = static_cast<Word>((exactLeft & 0x00ff) | (exactRight & 0xff00));
  return static_cast<Word>(left | right << 8);
}

// True if any luma of the block is exact.
[[gnu::always_inline]] inline bool convert(const Planes& top, const Planes& bottom,
                                           Nv12Block& out) {
  constexpr int kFourTimes128 = 512;
  Word anyExact = 0;
  for (unsigned i = 0; i < kWords; ++i) {
    ChromaSum sum;
    out.luma[0][i] = addWord(top.b[i], top.g[i], top.r[i], sum, out.isExact[0][i]);
    out.luma[1][i] = addWord(bottom.b[i], bottom.g[i], bottom.r[i], sum, out.isExact[1][i]);
    anyExact = static_cast<Word>(anyExact | out.isExact[0][i] | out.isExact[1][i]);
    const auto u = static_cast<Lane>(static_cast<Lane>(sum.u + kFourTimes128) >> 2);
    const auto v = static_cast<Lane>(static_cast<Lane>(sum.v + kFourTimes128) >> 2);
    out.chroma[i] = static_cast<Word>(u | v << 8);
  }
  return anyExact != 0;
}

// Recomputes exact lumas in double precision, which rounds some of them down by no simple rule. One
// random colour in a thousand is exact, so most groups of bytes are skipped.
[[gnu::always_inline]] inline void correct(const std::uint8_t* bgr, const Word* isExact,
                                           Word* luma) {
  constexpr unsigned kAtOnce = 8;
  const auto* const exactBytes = reinterpret_cast<const std::uint8_t*>(isExact);
  auto* const bytes = reinterpret_cast<std::uint8_t*>(luma);
  for (unsigned begin = 0; begin < kPixels; begin += kAtOnce) {
    std::uint64_t any = 0;
    std::memcpy(&any, exactBytes + begin, kAtOnce);
    for (unsigned i = begin; any != 0 && i < begin + kAtOnce; ++i) {
      if (exactBytes[i] != 0) {
        const std::uint8_t* const pixel = bgr + std::size_t{3} * i;
        bytes[i] = lumaOf(pixel[0], pixel[1], pixel[2]);
      }
    }
  }
}

// First pixel of a block in input and output.
struct Place {
  const std::uint8_t* bgr[2];
  std::uint8_t* luma[2];
  std::uint8_t* chroma;
};

template <SplitFunction Split>
[[gnu::always_inline]] inline void convertBlock(const Place& at) {
  Planes top;
  Planes bottom;
  Nv12Block out;
  Split(at.bgr[0], top);
  Split(at.bgr[1], bottom);
  if (convert(top, bottom, out)) {
    correct(at.bgr[0], out.isExact[0], out.luma[0]);
    correct(at.bgr[1], out.isExact[1], out.luma[1]);
  }
  std::memcpy(at.luma[0], out.luma[0], kPixels);
  std::memcpy(at.luma[1], out.luma[1], kPixels);
  std::memcpy(at.chroma, out.chroma, kPixels);
}

// The last `count` pixels of a row, fewer than a block.
template <SplitFunction Split>
[[gnu::always_inline]] inline void convertTail(const Place& at, unsigned count) {
  std::uint8_t bgr[2][3 * kPixels] = {};
  std::uint8_t nv12[3][kPixels];
  std::memcpy(bgr[0], at.bgr[0], std::size_t{3} * count);
  std::memcpy(bgr[1], at.bgr[1], std::size_t{3} * count);
  convertBlock<Split>({{bgr[0], bgr[1]}, {nv12[0], nv12[1]}, nv12[2]});
  std::memcpy(at.luma[0], nv12[0], count);
  std::memcpy(at.luma[1], nv12[1], count);
  std::memcpy(at.chroma, nv12[2], count);
}

template <SplitFunction Split>
[[gnu::always_inline]] inline void convertImage(const std::uint8_t* bgr, std::size_t step,
                                                unsigned width, unsigned height,
                                                std::uint8_t* nv12) {
  std::uint8_t* const chroma = nv12 + std::size_t{width} * height;
  for (std::size_t y = 0; y < height; y += 2) {
    unsigned x = 0;
    const auto place = [&] {
      const std::uint8_t* const in = bgr + y * step + std::size_t{3} * x;
      std::uint8_t* const luma = nv12 + y * width + x;
      return Place{{in, in + step}, {luma, luma + width}, chroma + y / 2 * width + x};
    };
    for (; width - x >= kPixels; x += kPixels) {
      convertBlock<Split>(place());
    }
    if (x < width) {
      convertTail<Split>(place(), width - x);
    }
  }
}

void bgrToNv12Portable(const std::uint8_t* bgr, std::size_t step, unsigned width, unsigned height,
                       std::uint8_t* nv12) {
  convertImage<splitPortable>(bgr, step, width, height, nv12);
}

#if defined(__x86_64__)

[[gnu::target("avx2,fma")]] void bgrToNv12Avx2(const std::uint8_t* bgr, std::size_t step,
                                               unsigned width, unsigned height,
                                               std::uint8_t* nv12) {
  convertImage<splitAvx2>(bgr, step, width, height, nv12);
}

#elif defined(__aarch64__)

void bgrToNv12Neon(const std::uint8_t* bgr, std::size_t step, unsigned width, unsigned height,
                   std::uint8_t* nv12) {
  convertImage<splitNeon>(bgr, step, width, height, nv12);
}

#endif

}  // namespace

BgrToNv12Conversions bgrToNv12Conversions() {
  BgrToNv12Conversions conversions = {};
  auto next = conversions.begin();
#if defined(__x86_64__)
  if (__builtin_cpu_supports("avx2") != 0 && __builtin_cpu_supports("fma") != 0) {
    *next++ = bgrToNv12Avx2;
  }
#elif defined(__aarch64__)
  *next++ = bgrToNv12Neon;
#endif
  *next = bgrToNv12Portable;
  return conversions;
}

}  // namespace media_backend
