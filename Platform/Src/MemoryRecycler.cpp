#include "OperatingSystem.h"

#include <Tolbin/Allocator.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <sys/mman.h>

namespace Tolbin::allocator
{

namespace
{

constexpr std::size_t kLargePage = std::size_t{2} << 20; // Where pages are larger still, they are not asked for.
static_assert(MemoryRecycler::kMappedSize % kLargePage == 0);

//! From here on what is asked for is compared with what there is. Less is not worth the question.
constexpr std::size_t kMuch = std::size_t{256} << 20;

constexpr std::size_t RoundUp(std::size_t inSize)
{
    return (inSize + kLargePage - 1) / kLargePage * kLargePage;
}

//! Whether so much could ever be had at once. The system may promise it all the same, and end the process that uses it.
bool IsPossible(std::size_t inSize)
{
    constexpr std::uint64_t kMost = std::numeric_limits<std::ptrdiff_t>::max(); // Rounding up ends above it.
    return inSize < kMuch || inSize <= std::min(kMost, Ventra::OperatingSystem::GetMemorySize());
}

//! Address space of whole large pages, which takes memory as it is touched.
void* Map(std::size_t inSize)
{
    const std::size_t size = RoundUp(inSize);
    void* const mapped = ::mmap(nullptr, size + kLargePage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapped == MAP_FAILED)
    {
        throw std::bad_alloc();
    }
    char* const begin = static_cast<char*>(mapped);
    const auto address = reinterpret_cast<std::uintptr_t>(mapped);
    const std::size_t inFront = RoundUp(address) - address;
    if (inFront > 0)
    {
        ::munmap(begin, inFront);
    }
    if (inFront < kLargePage)
    {
        ::munmap(begin + inFront + size, kLargePage - inFront);
    }
    MemoryRecycler::PreferLargePages(begin + inFront, size);
    return begin + inFront;
}

} // namespace

void* MemoryRecycler::Allocate(std::size_t inSize)
{
    if (!IsPossible(inSize))
    {
        throw std::bad_alloc();
    }
    return inSize < kMappedSize ? ::operator new(inSize) : Map(inSize);
}

void MemoryRecycler::Recycle(void* inMemory, std::size_t inSize) noexcept
{
    if (inSize < kMappedSize || inMemory == nullptr)
    {
        ::operator delete(inMemory);
    }
    else
    {
        ::munmap(inMemory, RoundUp(inSize));
    }
}

void MemoryRecycler::PreferLargePages(void* inMemory, std::size_t inSize) noexcept
{
#if defined(MADV_HUGEPAGE)
    const auto address = reinterpret_cast<std::uintptr_t>(inMemory);
    const std::uintptr_t begin = RoundUp(address);
    const std::uintptr_t end = (address + inSize) / kLargePage * kLargePage;
    if (begin < end)
    {
        // Refused where the system has none: small pages serve as well, if slower.
        static_cast<void>(::madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE));
    }
#else
    static_cast<void>(inMemory);
    static_cast<void>(inSize);
#endif
}

} // namespace Tolbin::allocator
