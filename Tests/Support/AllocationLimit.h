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

//! For a scope, one allocation fails with `std::bad_alloc`: the one with this number, counted from 1.
class AllocationFault
{
public:
    explicit AllocationFault(int inNumber);
    ~AllocationFault();

    //! Whether it has been reached.
    static bool HasStruck();

    //! For a scope, allocations neither count nor fail.
    class Pause
    {
    public:
        Pause();
        ~Pause();

        Pause(const Pause&) = delete;
        Pause& operator=(const Pause&) = delete;

    private:
        int mLeft;
    };

    AllocationFault(const AllocationFault&) = delete;
    AllocationFault& operator=(const AllocationFault&) = delete;
};
