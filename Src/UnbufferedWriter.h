#pragma once

#include <Tolbin/Result.h>
#include <Tolbin/UTF16String.h>
#include <Ventra/File.h>

#include <boost/shared_ptr.hpp>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace VentraFileWriteChk
{

//! One `Ventra::File::Write` whose length is checked: a success that wrote less than asked becomes `kResultShortWrite`.
//! Nothing is retried.
Tolbin::Result Write(boost::shared_ptr<Ventra::File> file, void* data, unsigned int length, unsigned int& bytesWritten);

} // namespace VentraFileWriteChk

//! Appends bytes to an existing file in large blocks that bypass the system's cache.
//!
//! Bytes are collected in a block that starts on a sector boundary in memory and in the file. Each full block is
//! written in one call through a second, unbuffered handle on the same path; the partial block that is left at `Close`
//! goes through the handle shared with the caller. Order of calls: `OpenExisting`, any number of `Write`, `Close`.
class UnbufferedWriter
{
public:
    //! Writes nothing: without `Close` the bytes still in the block are lost.
    virtual ~UnbufferedWriter() = default;

    //! \param file             open handle on the file, shared; used again by `Close` only
    //! \param path             path of the same file
    //! \param inInitialOffset  where writing begins; a multiple of the sector size, else a contract violation is raised
    //! \return 0 or above; `kResultOutOfMemory` when the block cannot be had; an error of the system.
    virtual Tolbin::Result OpenExisting(boost::shared_ptr<Ventra::File> file, Tolbin::UTF16String& path,
                                        std::int64_t inInitialOffset) = 0;

    //! Takes `length` bytes and writes every block that becomes full.
    //!
    //! \return 0 or above; the failure of a block write, and what follows that block in `data` is not taken. The failed
    //!         block counts as written: the next byte goes behind it.
    virtual Tolbin::Result Write(char* data, std::size_t length) = 0;

    //! File offset of the next byte; keeps answering after `Close`.
    virtual std::int64_t GetFilePointer() = 0;

    //! Writes what is left in the block, at its exact offset, and closes the unbuffered handle.
    virtual Tolbin::Result Close() = 0;

    //! Bytes that the block still takes: a `Write` of fewer writes nothing to the file. Above 0 while open.
    virtual std::size_t GetBlockRoom() = 0;
};

//! \param diskSectorSize  alignment of the block in bytes, above 0, else a contract violation is raised; a size that is
//!                        not a power of two aligns to its largest power-of-two factor
//! \param result          set to 0
boost::shared_ptr<UnbufferedWriter> CreateUnbufferedWriter(unsigned int diskSectorSize, Tolbin::Result& result);
