#pragma once

#include <cstddef>
#include <cstring>

#if defined(__SSE2__)
#include <cstdint>
#include <emmintrin.h>
#endif

namespace QT
{

//! Copies bytes that a device reads next, past the processor's caches if it can. Memory that the device has read before
//! is dear to write through them: each line is fetched first, only to be written over. What other threads and the
//! device are told of afterwards they find there, as after any copy.
inline void StreamingCopy(char* outData, const char* inData, std::size_t inSize)
{
#if defined(__SSE2__)
    constexpr std::size_t kUnit = sizeof(__m128i);
    constexpr std::size_t kLine = 4 * kUnit;
    constexpr std::size_t kAhead = 4096; // The processor's own prefetching stops at the end of each page.
    if (inSize >= 2 * kLine)
    {
        const std::size_t inFront = (kUnit - reinterpret_cast<std::uintptr_t>(outData) % kUnit) % kUnit;
        std::memcpy(outData, inData, inFront);
        outData += inFront;
        inData += inFront;
        inSize -= inFront;
        for (; inSize >= kLine; inSize -= kLine, outData += kLine, inData += kLine)
        {
            _mm_prefetch(inData + kAhead, _MM_HINT_T1); // Beyond the end it is harmless.
            const auto* const from = reinterpret_cast<const __m128i*>(inData);
            auto* const to = reinterpret_cast<__m128i*>(outData);
            const __m128i a = _mm_loadu_si128(from);
            const __m128i b = _mm_loadu_si128(from + 1);
            const __m128i c = _mm_loadu_si128(from + 2);
            const __m128i d = _mm_loadu_si128(from + 3);
            _mm_stream_si128(to, a);
            _mm_stream_si128(to + 1, b);
            _mm_stream_si128(to + 2, c);
            _mm_stream_si128(to + 3, d);
        }
        _mm_sfence(); // Such stores may otherwise pass by those that hand the block over to another thread.
    }
#endif
    std::memcpy(outData, inData, inSize);
}

} // namespace QT
