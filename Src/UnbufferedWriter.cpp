#include "UnbufferedWriter.h"

#include "StreamingCopy.h"

#include <Tolbin/Allocator.h>
#include <Tolbin/Config.h>
#include <Tolbin/Debug.h>

#include <boost/make_shared.hpp>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string>

namespace
{

constexpr std::uint32_t kDefaultBlockSize = 20u << 20;
// From these sizes on, of a piece and of the block, a streaming copy is the cheaper one.
constexpr std::size_t kStreamingSize = 4096;
constexpr std::size_t kStreamedBlockSize = 4u << 20;
constexpr const char* kSMBWriteSizeKey = "Reelmill.SMBWriteSizeInKBytes";
constexpr const char* kNFSWriteSizeKey = "Reelmill.NFSWriteSizeInKBytes";
constexpr const char* kTraceCategory = "UnbufferedWriter::OpenExisting()";

[[noreturn]] void RaiseContractViolation(const char* inExpression, const char* inFunction, int inLine)
{
    if (Tolbin::debug::BreakAfterContractDialog(inExpression, __FILE__, inFunction, inLine) &&
        Tolbin::debug::IsDebuggerAttached())
    {
        std::raise(SIGTRAP);
    }
    const Tolbin::config::ReplacementValue none;
    Tolbin::config::ThrowError(0,
                               "$$$/Tolbin/utility/Error/Contract/InputContractViolation="
                               "An input contract violation has occurred!",
                               105, 25, true, none, none, none, none);
}

#define CHECK_INPUT_CONTRACT(condition)                                                                                \
    do                                                                                                                 \
    {                                                                                                                  \
        if (!(condition))                                                                                              \
        {                                                                                                              \
            RaiseContractViolation(#condition, __PRETTY_FUNCTION__, __LINE__);                                         \
        }                                                                                                              \
    } while (false)

//! Bytes collected before one write on a volume of the given kind. A setting counts in KiB; 0 stands for the default
//! block, and one whose bytes do not fit 32 bits counts as not set.
std::uint32_t BlockSizeFor(Ventra::FileSystemType::Type inType)
{
    const auto readSetting = [](const char* inKey, unsigned int inDefault) {
        const auto kibibytes = Tolbin::debug::DebugDatabase::Instance().GetEntryAs<unsigned int>(inKey, inDefault);
        return kibibytes < (1u << 22) ? kibibytes : inDefault;
    };
    std::uint32_t kibibytes = 0;
    if (inType == Ventra::FileSystemType::kSMB)
    {
        kibibytes = readSetting(kSMBWriteSizeKey, 0);
    }
    else if (inType == Ventra::FileSystemType::kNFS)
    {
        kibibytes = readSetting(kNFSWriteSizeKey, 32);
    }
    return kibibytes != 0 ? kibibytes * 1024 : kDefaultBlockSize;
}

void TraceBlockSize(std::size_t inBlockSize)
{
    static std::atomic<std::uint32_t> sChangeCount{0};
    static std::atomic<bool> sEnabled{false};
    const std::uint32_t changeCount = Tolbin::debug::TraceChangeCount.load();
    if (sChangeCount.exchange(changeCount) != changeCount)
    {
        sEnabled.store(Tolbin::debug::TraceEnabled(kTraceCategory, 1, true), std::memory_order_release);
    }
    if (sEnabled.load(std::memory_order_acquire))
    {
        Tolbin::debug::Trace(1, kTraceCategory, "blocksize " + std::to_string(inBlockSize) + "\n");
    }
}

} // namespace

class PrivateUnbufferedWriter final : public UnbufferedWriter
{
public:
    void Init(std::uint32_t diskSectorSize, Tolbin::Result& result)
    {
        mDiskSectorSize = diskSectorSize;
        CHECK_INPUT_CONTRACT(mDiskSectorSize > 0);
        result = Tolbin::kResultSuccess;
    }

    Tolbin::Result OpenExisting(boost::shared_ptr<Ventra::File> file, Tolbin::UTF16String& path,
                                std::int64_t inInitialOffset) override
    {
        mSharedFile = file;
        CHECK_INPUT_CONTRACT(inInitialOffset == inInitialOffset / mDiskSectorSize * mDiskSectorSize);

        mUnbufferedFile = boost::make_shared<Ventra::File>();
        Tolbin::Result result = mUnbufferedFile->Create(
            path, Ventra::FileAccessFlags::kWrite, Ventra::FileShareModeFlags::kReadWrite,
            Ventra::FileCreateDispositionFlags::kOpenExisting, Ventra::FileAttributesFlags::kUnbuffered, false);
        mBlockOffset = inInitialOffset;
        if (result < 0)
        {
            return result;
        }
        result = mUnbufferedFile->SetFilePointer(inInitialOffset, Ventra::FilePointerMoveMethod::kBegin);
        if (result < 0)
        {
            return result;
        }
        mBufferedWriteSize = BlockSizeFor(mUnbufferedFile->GetFileSystemType());
        if (!SizeBlock())
        {
            result = Tolbin::kResultOutOfMemory;
        }
        TraceBlockSize(mBufferedWriteSize);
        return result;
    }

    Tolbin::Result Write(char* data, std::size_t length) override
    {
        if (length == 0 || length >= GetBlockRoom())
        {
            return WriteBlocks(data, length);
        }
        Append(data, length);
        return Tolbin::kResultSuccess;
    }

    std::int64_t GetFilePointer() override { return mBlockOffset + static_cast<std::int64_t>(mBufferCurrentPos); }

    Tolbin::Result Close() override
    {
        if (mUnbufferedFile)
        {
            static_cast<void>(mUnbufferedFile->Close()); // Its blocks have reported their own results.
            mUnbufferedFile.reset();
        }
        if (mBufferCurrentPos == 0)
        {
            return Tolbin::kResultSuccess;
        }
        // A position that cannot be reached shows in the write.
        static_cast<void>(mSharedFile->SetFilePointer(mBlockOffset, Ventra::FilePointerMoveMethod::kBegin));
        return WriteBlock(mSharedFile);
    }

    std::size_t GetBlockRoom() override { return mBufferedWriteSize - mBufferCurrentPos; }

private:
    void Append(const char* inData, std::size_t inSize)
    {
        char* const place = mAlignedBuffer + mBufferCurrentPos;
        if (inSize >= kStreamingSize && mBufferedWriteSize >= kStreamedBlockSize)
        {
            QT::StreamingCopy(place, inData, inSize);
        }
        else
        {
            std::memcpy(place, inData, inSize);
        }
        mBufferCurrentPos += inSize;
    }

    //! `Write`, when a block becomes full; apart, so that what nearly every sample passes through stays small.
    [[gnu::noinline]] Tolbin::Result WriteBlocks(const char* data, std::size_t length)
    {
        Tolbin::Result result = Tolbin::kResultSuccess;
        while (length != 0)
        {
            const std::size_t count = std::min(length, GetBlockRoom());
            Append(data, count);
            TOLBIN_ASSERT(mBufferCurrentPos <= mBufferedWriteSize, "");
            if (mBufferCurrentPos == mBufferedWriteSize)
            {
                result = WriteBlock(mUnbufferedFile);
                // Also after a failure: the block counts as written.
                mBlockOffset += static_cast<std::int64_t>(mBufferCurrentPos);
                mBufferCurrentPos = 0;
            }
            if (result < 0)
            {
                return result;
            }
            data += count;
            length -= count;
        }
        return result;
    }

    //! Allocates the block and places it: at the first multiple of the alignment behind the start of the storage, so
    //! that the whole block fits whatever the storage's address.
    bool SizeBlock()
    {
        try
        {
            const std::size_t size = mBufferedWriteSize + mDiskSectorSize;
            mBuffer.reserve(size);
            Tolbin::allocator::MemoryRecycler::PreferLargePages(mBuffer.data(), size);
            mBuffer.resize(size);
        }
        catch (const std::bad_alloc&)
        {
            return false;
        }
        catch (const std::length_error&)
        {
            return false;
        }
        const std::uintptr_t alignment = mDiskSectorSize & (0u - mDiskSectorSize);
        const auto start = reinterpret_cast<std::uintptr_t>(mBuffer.data());
        mAlignedBuffer = mBuffer.data() + (((start + alignment) & ~(alignment - 1)) - start);
        mBufferCurrentPos = 0;
        return true;
    }

    Tolbin::Result WriteBlock(const boost::shared_ptr<Ventra::File>& inFile)
    {
        unsigned int bytesWritten = 0;
        return VentraFileWriteChk::Write(inFile, mAlignedBuffer, static_cast<unsigned int>(mBufferCurrentPos),
                                         bytesWritten);
    }

    boost::shared_ptr<Ventra::File> mSharedFile;     //!< The caller's handle; takes the final partial block only.
    boost::shared_ptr<Ventra::File> mUnbufferedFile; //!< Our own handle; takes every full block.
    std::uint32_t mDiskSectorSize = 0;               //!< Alignment unit in bytes.
    std::size_t mBufferedWriteSize = 0;              //!< Bytes of a block; below 2^32.
    std::vector<char> mBuffer;                       //!< Storage of the block: its size and one sector more.
    char* mAlignedBuffer = nullptr;                  //!< The block.
    std::size_t mBufferCurrentPos = 0;               //!< Bytes in the block; below its size between calls.
    std::int64_t mBlockOffset = 0;                   //!< File offset of the block's first byte.
};

namespace VentraFileWriteChk
{

Tolbin::Result Write(boost::shared_ptr<Ventra::File> file, void* data, unsigned int length, unsigned int& bytesWritten)
{
    const Tolbin::Result result = file->Write(data, length, bytesWritten);
    return result >= 0 && bytesWritten != length ? Tolbin::kResultShortWrite : result;
}

} // namespace VentraFileWriteChk

boost::shared_ptr<UnbufferedWriter> CreateUnbufferedWriter(unsigned int diskSectorSize, Tolbin::Result& result)
{
    const auto writer = boost::make_shared<PrivateUnbufferedWriter>();
    writer->Init(diskSectorSize, result);
    return writer;
}
