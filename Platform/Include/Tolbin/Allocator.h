#pragma once

#include <Tolbin/Export.h>

#include <cstddef>
#include <limits>
#include <new>

namespace Tolbin::allocator
{

//! Where the core allocator's memory comes from. Small blocks are drawn from the process heap, which recycles freed
//! ones by size already. Blocks of `kMappedSize` and more are address space of their own: they take memory only where
//! they are touched, in large pages if the system has them, and give all of it back at once. Safe to use from any
//! thread.
class MemoryRecycler
{
public:
    //! In bytes. From here on a container may ask for more room than it will ever use.
    static constexpr std::size_t kMappedSize = std::size_t{2} << 20;

    //! At least `inSize` bytes, aligned for any fundamental type. Throws `std::bad_alloc`, also where the system would
    //! promise the memory though neither the machine nor the process's control group has as much.
    TOLBIN_EXPORT static void* Allocate(std::size_t inSize);

    //! Takes back what `Allocate` gave for the same size. Null is allowed.
    TOLBIN_EXPORT static void Recycle(void* inMemory, std::size_t inSize) noexcept;

    //! Asks the system to back memory that has not been touched yet with large pages, as far as whole ones fit in: the
    //! first touch costs far less. Advice only.
    TOLBIN_EXPORT static void PreferLargePages(void* inMemory, std::size_t inSize) noexcept;
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
