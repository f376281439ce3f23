#pragma once

#include <cstddef>
#include <new>
#include <sys/mman.h>

namespace Bench
{

//! Anonymous memory, untouched, in huge pages where the system has them.
class Memory
{
public:
    explicit Memory(std::size_t inSize)
        : mSize(inSize), mData(mmap(nullptr, inSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0))
    {
        if (mData == MAP_FAILED)
        {
            throw std::bad_alloc();
        }
        static_cast<void>(madvise(mData, mSize, MADV_HUGEPAGE)); // A kernel without them refuses.
    }
    ~Memory() { munmap(mData, mSize); }
    Memory(const Memory&) = delete;
    Memory& operator=(const Memory&) = delete;

    char* Data() const { return static_cast<char*>(mData); }
    std::size_t Size() const { return mSize; }

private:
    std::size_t mSize;
    void* mData;
};

} // namespace Bench
