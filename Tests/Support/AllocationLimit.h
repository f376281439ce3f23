#pragma once

#include <cstddef>

//! For a scope, every single allocation above a limit fails with `std::bad_alloc`. Replaces the program's `operator
//! new`.
class AllocationLimit
{
public:
    explicit AllocationLimit(std::size_t inLimit);
    ~AllocationLimit();

    //! False where a memory checker has taken over `operator new`, so that no limit holds.
    static bool Works();

    AllocationLimit(const AllocationLimit&) = delete;
    AllocationLimit& operator=(const AllocationLimit&) = delete;
};
