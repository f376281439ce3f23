#pragma once

#include <Tolbin/Export.h>

#include <cstddef>
#include <limits>
#include <new>

namespace Tolbin::allocator
{

//! Where the core allocator's memory comes from. Draws from the process heap, which recycles freed blocks by size
//! already; whatever policy large arrays need belongs here and nowhere else. Safe to use from any thread.
class MemoryRecycler
{
public:
    //! At least `inSize` bytes, aligned for any fundamental type. Throws `std::bad_alloc`.
    TOLBIN_EXPORT static void* Allocate(std::size_t inSize);

    //! Takes back what `Allocate` gave for the same size. Null is allowed.
    TOLBIN_EXPORT static void Recycle(void* inMemory, std::size_t inSize) noexcept;
};

//! The core library's allocator for standard containers. Stateless: all instances are equal.
template <typename T>
class STLAllocator
{
public:
    using value_type = T;

    STLAllocator() noexcept = default;

    template <typename U>
    STLAllocator(const STLAllocator<U>&) noexcept
    {
    }

    T* allocate(std::size_t inCount)
    {
        if (inCount > std::numeric_limits<std::size_t>::max() / sizeof(T))
        {
            throw std::bad_alloc();
        }
        return static_cast<T*>(MemoryRecycler::Allocate(inCount * sizeof(T)));
    }

    void deallocate(T* inMemory, std::size_t inCount) noexcept
    {
        MemoryRecycler::Recycle(inMemory, inCount * sizeof(T));
    }

    template <typename U>
    bool operator==(const STLAllocator<U>&) const noexcept
    {
        return true;
    }

    template <typename U>
    bool operator!=(const STLAllocator<U>&) const noexcept
    {
        return false;
    }
};

} // namespace Tolbin::allocator
