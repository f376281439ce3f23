#include <Tolbin/Allocator.h>

namespace Tolbin::allocator
{

void* MemoryRecycler::Allocate(std::size_t inSize)
{
    return ::operator new(inSize);
}

void MemoryRecycler::Recycle(void* inMemory, std::size_t /*inSize*/) noexcept
{
    ::operator delete(inMemory);
}

} // namespace Tolbin::allocator
