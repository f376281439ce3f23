#include "AllocationLimit.h"

#include <atomic>
#include <cstdlib>
#include <limits>
#include <new>

namespace
{

constexpr std::size_t kUnlimited = std::numeric_limits<std::size_t>::max();
std::atomic<std::size_t> sLimit{kUnlimited};
std::atomic<int> sLeft{0}; // Allocations up to the one that fails; 0 without such a one.
std::atomic<bool> sHasStruck{false};

} // namespace

AllocationLimit::AllocationLimit(std::size_t inLimit)
{
    sLimit = inLimit;
}

AllocationLimit::~AllocationLimit()
{
    sLimit = kUnlimited;
}

AllocationFault::AllocationFault(int inNumber)
{
    sHasStruck = false;
    sLeft = inNumber;
}

AllocationFault::~AllocationFault()
{
    sLeft = 0;
}

bool AllocationFault::HasStruck()
{
    return sHasStruck;
}

AllocationFault::Pause::Pause() : mLeft(sLeft.exchange(0)) {}

AllocationFault::Pause::~Pause()
{
    sLeft = mLeft;
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
    if (sLeft > 0 && --sLeft == 0)
    {
        sHasStruck = true;
        throw std::bad_alloc();
    }
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
