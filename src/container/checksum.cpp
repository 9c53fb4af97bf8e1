#include "container/checksum.h"

#include <zlib.h>

#include <algorithm>
#include <climits>

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#define QRV_CHECKSUM_FOLDING 1
#include <immintrin.h>
#endif

namespace {

uint32_t zlibChecksum(uint32_t crc, const uint8_t* next, size_t byteCount) {
    uLong value = crc;
    // zlib takes a uInt count: feed larger ranges in pieces.
    while (byteCount > 0) {
        const size_t piece = std::min<size_t>(byteCount, UINT_MAX);
        value = crc32(value, next, static_cast<uInt>(piece));
        next += piece;
        byteCount -= piece;
    }
    return static_cast<uint32_t>(value);
}

#ifdef QRV_CHECKSUM_FOLDING
// The recorder checksums every record it writes, and zlib's table-driven CRC (about 2.5 GB/s)
// would cost more than writing the record. The same CRC is computed by folding 16-byte blocks
// with carry-less multiplication, four 64-byte registers at a time where the processor has the
// 512-bit form: the state S of the bytes so far, followed by n more bits, becomes
// S * x^n mod P, and a 64-bit half is moved forward by n bits with one multiplication by the
// constant K(n) = reflected(x^n mod P) << 1. zlib still takes what is left after the blocks.
// The constants: K(D + 32) for the low and K(D - 32) for the high half of a block folded D bits.
constexpr long long kFold128Low = 0x1751997d0, kFold128High = 0x0ccaa009e;    // D = 128
constexpr long long kFold512Low = 0x154442bd4, kFold512High = 0x1c6e41596;    // D = 512
constexpr long long kFold2048Low = 0x11542778a, kFold2048High = 0x1322d1430;  // D = 2048
constexpr long long kFold384Low = 0x03db1ecdc, kFold384High = 0x174359406;
constexpr long long kFold256Low = 0x0f1da05aa, kFold256High = 0x15a546366;
constexpr long long kFold64 = 0x163cd6124;  // K(64): the last 64 bits down to 32
// Barrett reduction: the polynomial P and floor(x^64 / P), both reflected.
constexpr long long kPolynomial = 0x1db710641, kQuotient = 0x1f7011641;

#define QRV_TARGET_CLMUL __attribute__((target("pclmul,sse4.1")))
#define QRV_TARGET_WIDE __attribute__((target("avx512f,vpclmulqdq,pclmul,sse4.1")))

QRV_TARGET_CLMUL __m128i fold(__m128i x, __m128i constants, __m128i next) {
    return _mm_xor_si128(_mm_xor_si128(_mm_clmulepi64_si128(x, constants, 0x00), _mm_clmulepi64_si128(x, constants, 0x11)),
                         next);
}

QRV_TARGET_CLMUL __m128i load(const uint8_t* bytes) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes));
}

// Folds 64-byte groups (byteCount >= 64) into one block, starting from `state`.
QRV_TARGET_CLMUL __m128i foldGroups(uint32_t state, const uint8_t*& next, size_t& byteCount) {
    __m128i x[4];
    for (int i = 0; i < 4; ++i) x[i] = load(next + 16 * i);
    x[0] = _mm_xor_si128(x[0], _mm_cvtsi32_si128(int(state)));
    next += 64, byteCount -= 64;
    const __m128i by512 = _mm_set_epi64x(kFold512High, kFold512Low);
    for (; byteCount >= 64; next += 64, byteCount -= 64)
        for (int i = 0; i < 4; ++i) x[i] = fold(x[i], by512, load(next + 16 * i));
    const __m128i by128 = _mm_set_epi64x(kFold128High, kFold128Low);
    return fold(fold(fold(x[0], by128, x[1]), by128, x[2]), by128, x[3]);
}

// fold() on the four blocks of a 512-bit register at once.
QRV_TARGET_WIDE inline __attribute__((always_inline)) __m512i wideFold(__m512i x, __m512i constants, __m512i next) {
    return _mm512_ternarylogic_epi64(_mm512_clmulepi64_epi128(x, constants, 0x00),
                                     _mm512_clmulepi64_epi128(x, constants, 0x11), next, 0x96);
}

// Folds 256-byte groups (byteCount >= 256) into one block, starting from `state`.
QRV_TARGET_WIDE __m128i foldWideGroups(uint32_t state, const uint8_t*& next, size_t& byteCount) {
    __m512i x[4];
    for (int i = 0; i < 4; ++i) x[i] = _mm512_loadu_si512(next + 64 * i);
    x[0] = _mm512_xor_si512(x[0], _mm512_zextsi128_si512(_mm_cvtsi32_si128(int(state))));
    next += 256, byteCount -= 256;
    const __m512i by2048 = _mm512_set_epi64(kFold2048High, kFold2048Low, kFold2048High, kFold2048Low, kFold2048High,
                                            kFold2048Low, kFold2048High, kFold2048Low);
    for (; byteCount >= 256; next += 256, byteCount -= 256)
        for (int i = 0; i < 4; ++i) x[i] = wideFold(x[i], by2048, _mm512_loadu_si512(next + 64 * i));
    const __m512i by512 = _mm512_set_epi64(kFold512High, kFold512Low, kFold512High, kFold512Low, kFold512High,
                                           kFold512Low, kFold512High, kFold512Low);
    const __m512i one = wideFold(wideFold(wideFold(x[0], by512, x[1]), by512, x[2]), by512, x[3]);
    // Blocks 0, 1 and 2 of the register move forward to block 3 (its constants are 0).
    const __m512i byLane = _mm512_set_epi64(0, 0, kFold128High, kFold128Low, kFold256High, kFold256Low, kFold384High,
                                            kFold384Low);
    __m128i blocks[4], last[4];
    _mm512_storeu_si512(blocks, wideFold(one, byLane, _mm512_setzero_si512()));
    _mm512_storeu_si512(last, one);
    return _mm_xor_si128(_mm_xor_si128(blocks[0], blocks[1]), _mm_xor_si128(blocks[2], last[3]));
}

// The CRC register of the 16-byte blocks of next[0, byteCount) (byteCount >= 64) after `state`;
// leaves next and byteCount at the bytes after the last block.
QRV_TARGET_CLMUL uint32_t foldBlocks(uint32_t state, const uint8_t*& next, size_t& byteCount, bool wide) {
    __m128i x = wide && byteCount >= 256 ? foldWideGroups(state, next, byteCount) : foldGroups(state, next, byteCount);
    const __m128i by128 = _mm_set_epi64x(kFold128High, kFold128Low);
    for (; byteCount >= 16; next += 16, byteCount -= 16) x = fold(x, by128, load(next));
    // 128 bits to 64, 64 to 32, then Barrett's reduction modulo P.
    const __m128i low32 = _mm_set_epi32(0, 0, 0, -1);
    x = _mm_xor_si128(_mm_srli_si128(x, 8), _mm_clmulepi64_si128(x, by128, 0x10));
    x = _mm_xor_si128(_mm_srli_si128(x, 4), _mm_clmulepi64_si128(_mm_and_si128(x, low32), _mm_set_epi64x(0, kFold64), 0x00));
    const __m128i barrett = _mm_set_epi64x(kQuotient, kPolynomial);
    __m128i t = _mm_clmulepi64_si128(_mm_and_si128(x, low32), barrett, 0x10);
    t = _mm_clmulepi64_si128(_mm_and_si128(t, low32), barrett, 0x00);
    return uint32_t(_mm_extract_epi32(_mm_xor_si128(x, t), 1));
}

struct Folding {
    bool available = __builtin_cpu_supports("pclmul") && __builtin_cpu_supports("sse4.1");
    bool wide = available && __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("vpclmulqdq");
};
#endif

}  // namespace

uint32_t qrvChecksum(uint32_t crc, const void* bytes, size_t byteCount) {
    auto* next = static_cast<const uint8_t*>(bytes);
#ifdef QRV_CHECKSUM_FOLDING
    static const Folding folding;
    // zlib's value is the register inverted before and after.
    if (folding.available && byteCount >= 64) crc = ~foldBlocks(~crc, next, byteCount, folding.wide);
#endif
    return zlibChecksum(crc, next, byteCount);
}
