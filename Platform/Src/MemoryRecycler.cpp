#include <Tolbin/Allocator.h>

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

constexpr std::size_t RoundUp(std::size_t inSize)
{
    return (inSize + kLargePage - 1) / kLargePage * kLargePage;
}

//! Address space of whole large pages. Nothing is set aside for it: a size that no memory could hold is fine.
void* Map(std::size_t inSize)
{
    const std::size_t size = RoundUp(inSize);
    void* const mapped =
        ::mmap(nullptr, size + kLargePage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
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
    if (inSize > std::numeric_limits<std::ptrdiff_t>::max())
    {
        throw std::bad_alloc(); // Rounding up might not end above it.
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
