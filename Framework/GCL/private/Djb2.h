// djb2, the hash of the hash table's keys: from 5381 on, h = h * 33 + b for each byte b, modulo
// 2^32.
//
// Done byte by byte, each step waits for the multiplication before it. A block of n bytes can be
// taken at once instead, as h * 33^n plus the sum of each byte times its own power of 33, and that
// sum is formed side by side in a word or a vector. The hash is the same whatever the blocks, and
// nothing outside the key is read: what is left of it at last is taken from its last whole word,
// with the bytes that were taken before cleared.
#ifndef GCL_PRIVATE_DJB2_H
#define GCL_PRIVATE_DJB2_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace gcl {

constexpr uint32_t kDjb2Start = 5381;

constexpr uint32_t powerOf33(size_t exponent)
{
    uint32_t power = 1;
    for (; exponent > 0; --exponent) {
        power *= 33;
    }
    return power;
}

// The word's first byte in memory becomes its least significant one.
template <typename Word>
Word loadWord(const char* bytes)
{
    Word word{};
    std::memcpy(&word, bytes, sizeof word);
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    word = sizeof word == 8 ? static_cast<Word>(__builtin_bswap64(word))
                            : static_cast<Word>(__builtin_bswap32(static_cast<uint32_t>(word)));
#endif
    return word;
}

// The bytes of a word, each times its power of 33: 33^0 for the last one. A pair's sum is below
// 2^16 and that of four bytes below 2^24, so that none runs into its neighbour.
inline uint32_t sumOf(uint32_t word)
{
    const uint32_t pairs = (word & 0x00FF00FF) * 33 + ((word >> 8) & 0x00FF00FF);
    return (pairs & 0xFFFF) * powerOf33(2) + (pairs >> 16);
}

inline uint32_t sumOf(uint64_t word)
{
    const uint64_t pairs = (word & 0x00FF00FF00FF00FF) * 33 + ((word >> 8) & 0x00FF00FF00FF00FF);
    const uint64_t fours =
        (pairs & 0x0000FFFF0000FFFF) * powerOf33(2) + ((pairs >> 16) & 0x0000FFFF0000FFFF);
    return static_cast<uint32_t>(fours) * powerOf33(4) + static_cast<uint32_t>(fours >> 32);
}

constexpr uint32_t kPowersOf33[] = {powerOf33(0), powerOf33(1), powerOf33(2), powerOf33(3),
                                    powerOf33(4), powerOf33(5), powerOf33(6), powerOf33(7)};

// A key of fewer than eight bytes. Four and more are gathered in a word from its first and its last
// four, behind zeros, which count for nothing.
inline uint32_t djb2OfShort(const char* key, size_t length)
{
    uint32_t hash = kDjb2Start;
    if (length >= sizeof(uint32_t)) {
        const uint64_t word = uint64_t{loadWord<uint32_t>(key)} << (64 - 8 * length) |
                              uint64_t{loadWord<uint32_t>(key + length - 4)} << 32;
        return hash * kPowersOf33[length] + sumOf(word);
    }
    for (const char* const end = key + length; key != end; ++key) {
        hash = hash * 33 + static_cast<unsigned char>(*key);
    }
    return hash;
}

// Goes on from `hash` with the bytes from `key` to `end`; a whole word in front of `end` belongs to
// the key.
template <typename Word>
uint32_t djb2ByWords(uint32_t hash, const char* key, const char* end)
{
    for (; end - key >= static_cast<ptrdiff_t>(sizeof(Word)); key += sizeof(Word)) {
        hash = hash * powerOf33(sizeof(Word)) + sumOf(loadWord<Word>(key));
    }
    if (key == end) {
        return hash;
    }
    const auto rest = static_cast<size_t>(end - key);
    const Word uncounted = static_cast<Word>(~Word{0}) << (8 * (sizeof(Word) - rest));
    return hash * kPowersOf33[rest] + sumOf(loadWord<Word>(end - sizeof(Word)) & uncounted);
}

#ifdef __SSE2__
// Blocks of 16 bytes. A lane's sums of four bytes are kept apart, those at even places from those
// at odd ones: a multiplication of the lanes takes the lower half of each and gives all of its
// product, of which the lower half counts.
struct Djb2Lanes {
    __m128i even = _mm_setzero_si128();
    __m128i odd = _mm_setzero_si128();

    void multiply(uint32_t factor)
    {
        const __m128i factors = _mm_set1_epi64x(int64_t{factor});
        even = _mm_mul_epu32(even, factors);
        odd = _mm_mul_epu32(odd, factors);
    }
    void add(const char* bytes)
    {
        const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes));
        const __m128i firsts = _mm_and_si128(block, _mm_set1_epi16(0x00FF));
        const __m128i pairs =
            _mm_add_epi16(_mm_mullo_epi16(firsts, _mm_set1_epi16(33)), _mm_srli_epi16(block, 8));
        const __m128i fours =
            _mm_madd_epi16(pairs, _mm_set1_epi32(static_cast<int>(powerOf33(2)) | 1 << 16));
        even = _mm_add_epi64(even, fours);
        odd = _mm_add_epi64(odd, _mm_srli_epi64(fours, 32));
    }
    uint32_t sum() const
    {
        const __m128i both = _mm_add_epi64(
            _mm_mul_epu32(even, _mm_set_epi64x(int64_t{powerOf33(4)}, int64_t{powerOf33(12)})),
            _mm_mul_epu32(odd, _mm_set_epi64x(1, int64_t{powerOf33(8)})));
        return static_cast<uint32_t>(
            _mm_cvtsi128_si32(_mm_add_epi64(both, _mm_unpackhi_epi64(both, both))));
    }
};

// `length` is a multiple of 32. Two blocks are taken in a round, so that neither waits for the
// other.
inline uint32_t djb2ByVectors(uint32_t hash, const char* key, size_t length)
{
    Djb2Lanes first;
    Djb2Lanes second;
    second.odd = _mm_set_epi64x(int64_t{hash}, 0);
    for (const char* const end = key + length; key != end; key += 32) {
        first.multiply(powerOf33(32));
        first.add(key);
        second.multiply(powerOf33(32));
        second.add(key + 16);
    }
    return first.sum() * powerOf33(16) + second.sum();
}
#endif

// Long keys part first and share no loop with shorter ones: one more branch on their way was
// measured to cost more than the instructions that it spares.
inline uint32_t djb2(const char* key, size_t length)
{
    const char* const end = key + length;
    uint32_t hash = kDjb2Start;
#ifdef __SSE2__
    if (length >= 64) {
        const size_t vectors = length / 32 * 32;
        hash = djb2ByVectors(hash, key, vectors);
        return djb2ByWords<uintptr_t>(hash, key + vectors, end);
    }
#endif
    if (length < sizeof(uintptr_t)) {
        return djb2OfShort(key, length);
    }
#ifdef __SSE2__
    for (; end - key >= static_cast<ptrdiff_t>(sizeof(__m128i)); key += sizeof(__m128i)) {
        Djb2Lanes block;
        block.add(key);
        hash = hash * powerOf33(16) + block.sum();
    }
#endif
    return djb2ByWords<uintptr_t>(hash, key, end);
}

} // namespace gcl

#endif // GCL_PRIVATE_DJB2_H
