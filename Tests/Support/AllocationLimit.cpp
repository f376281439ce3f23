#include "AllocationLimit.h"

#include <atomic>
#include <cstdlib>
#include <limits>
#include <new>

namespace
{

constexpr std::size_t kUnlimited = std::numeric_limits<std::size_t>::max();
std::atomic<std::size_t> sLimit{kUnlimited};

} // namespace

AllocationLimit::AllocationLimit(std::size_t inLimit)
{
    sLimit = inLimit;
}

AllocationLimit::~AllocationLimit()
{
    sLimit = kUnlimited;
}

bool AllocationLimit::Works()
{
    const AllocationLimit limit(0);
    try
    {
        ::operator delete(::operator new(1));
        return false;
    }
    catch (const std::bad_alloc&)
    {
        return true;
    }
}

void* operator new(std::size_t inSize)
{
    void* memory = inSize > sLimit ? nullptr : std::malloc(inSize == 0 ? 1 : inSize);
    if (memory == nullptr)
    {
        throw std::bad_alloc();
    }
    return memory;
}

// Not inlined, or the compiler takes the `free` for one that does not fit its `operator new`.
[[gnu::noinline]] void operator delete(void* inMemory) noexcept
{
    std::free(inMemory);
}

[[gnu::noinline]] void operator delete(void* inMemory, std::size_t) noexcept
{
    std::free(inMemory);
}
