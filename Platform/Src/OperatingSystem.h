#pragma once

// What differs between the supported systems, and nothing else; the rest of the platform is plain POSIX.

#include <Ventra/FileSystem.h>

#include <cstdint>
#include <ctime>
#include <sys/types.h>

namespace Ventra::OperatingSystem
{

//! `open` that keeps writes out of the system's cache where the file system allows it. -1 and `errno` on failure.
int OpenUnbuffered(const char* inPath, int inFlags, mode_t inPermissions);

//! Lets the writes of a handle go through the cache from now on. False when they already did.
bool StopUnbuffered(int inDescriptor);

//! Brings the file's content and length to the device. False and `errno` on failure.
bool Sync(int inDescriptor);

FileSystemType::Type GetType(int inDescriptor);

//! What unbuffered writes on the path's file must align to, in bytes; 0 when the system does not say.
unsigned int GetUnbufferedAlignment(const char* inPath);

//! The file's birth time, or the time of its last status change where none is kept. False and `errno` on failure.
bool GetCreationTime(const char* inPath, timespec& outTime);

bool IsDebuggerAttached();

//! What this process can have of memory at most, whoever else has it now: the machine's, with swap where the system
//! tells, or less where its control group (version 2) has less. In bytes; what cannot be told is no bound.
std::uint64_t GetMemorySize();

} // namespace Ventra::OperatingSystem
