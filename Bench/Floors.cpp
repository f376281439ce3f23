// What the machine asks for the same bytes: the bare operations that a writer is made of, each in its best form.

#include "Contestant.h"
#include "Memory.h"
#include "StreamingCopy.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <system_error>
#include <unistd.h>

namespace
{

constexpr std::size_t kBlockSize = 20u << 20;
constexpr std::size_t kSectorSize = 4096;
constexpr std::size_t kRecordSize = 32;

[[noreturn]] void Fail(const std::string& inWhat)
{
    throw std::system_error(errno, std::generic_category(), inWhat);
}

class OutputFile
{
public:
    OutputFile(const std::string& inPath, int inFlags)
        : mPath(inPath), mFile(open(inPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | inFlags, 0666))
    {
        if (mFile < 0)
        {
            Fail(mPath);
        }
    }
    ~OutputFile() { static_cast<void>(close(mFile)); } // It is brought to the device, and looked at, later.
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    void Write(const char* inData, std::size_t inSize)
    {
        while (inSize != 0)
        {
            const ssize_t written = write(mFile, inData, inSize);
            if (written < 0)
            {
                Fail(mPath);
            }
            inData += written;
            inSize -= static_cast<std::size_t>(written);
        }
    }

    void SetSize(std::uint64_t inSize)
    {
        if (ftruncate(mFile, static_cast<off_t>(inSize)) != 0)
        {
            Fail(mPath);
        }
    }

private:
    std::string mPath;
    int mFile;
};

//! Blocks written around the cache; the last one is cut behind its whole sectors.
class BlockOutput
{
public:
    BlockOutput(const Bench::Load& inLoad, const std::string& inPath)
        : mFile(inPath, O_DIRECT), mMediaSize(inLoad.MediaSize()), mBlock(kBlockSize)
    {
    }

    char* Block() { return mBlock.Data(); }

    void Write(std::size_t inSize)
    {
        mFile.Write(mBlock.Data(), (inSize + kSectorSize - 1) / kSectorSize * kSectorSize);
    }

    void Finish() { mFile.SetSize(mMediaSize); }

private:
    OutputFile mFile;
    std::uint64_t mMediaSize;
    Bench::Memory mBlock;
};

//! Direct writes of one block again and again.
class Direct final : public Bench::Contestant
{
public:
    void Create(const Bench::Load& inLoad, const std::string& inPath) override
    {
        mOutput = std::make_unique<BlockOutput>(inLoad, inPath);
        std::memset(mOutput->Block(), 'x', kBlockSize);
    }

    void Write(const Bench::Load& inLoad) override
    {
        for (std::uint64_t left = inLoad.MediaSize(); left != 0;)
        {
            const auto size = static_cast<std::size_t>(std::min<std::uint64_t>(left, kBlockSize));
            mOutput->Write(size);
            left -= size;
        }
    }

    void Close() override
    {
        mOutput->Finish();
        mOutput.reset();
    }

    bool FillsCache() const override { return false; }

private:
    std::unique_ptr<BlockOutput> mOutput;
};

//! The cheapest copy into memory that a device reads.
void CopyPiece(char* outData, const char* inData, std::size_t inSize)
{
    constexpr std::size_t kStreamingSize = 4096;
    if (inSize < kStreamingSize)
    {
        std::memcpy(outData, inData, inSize);
    }
    else
    {
        QT::StreamingCopy(outData, inData, inSize);
    }
}

//! Copies all pieces into one block, and calls `inWrite(size)` whenever it is full and for the rest.
template <class Write>
void CopyPieces(const Bench::Load& inLoad, char* inBlock, Write inWrite)
{
    std::size_t position = 0;
    inLoad.ForEach([&](const Bench::Piece& inPiece, const unsigned char* inData) {
        for (std::size_t left = inPiece.size; left != 0;)
        {
            const std::size_t count = std::min(left, kBlockSize - position);
            CopyPiece(inBlock + position, reinterpret_cast<const char*>(inData), count);
            position += count;
            inData += count;
            left -= count;
            if (position == kBlockSize)
            {
                inWrite(kBlockSize);
                position = 0;
            }
        }
    });
    inWrite(position);
}

//! The same with one copy in front of each write: the least that collecting samples in blocks can cost.
class CopyDirect final : public Bench::Contestant
{
public:
    void Create(const Bench::Load& inLoad, const std::string& inPath) override
    {
        mOutput = std::make_unique<BlockOutput>(inLoad, inPath);
    }

    void Write(const Bench::Load& inLoad) override
    {
        CopyPieces(inLoad, mOutput->Block(), [this](std::size_t inSize) { mOutput->Write(inSize); });
    }

    void Close() override
    {
        mOutput->Finish();
        mOutput.reset();
    }

    bool FillsCache() const override { return false; }

private:
    std::unique_ptr<BlockOutput> mOutput;
};

class WithoutFile : public Bench::Contestant
{
public:
    void Create(const Bench::Load&, const std::string&) override {}
    void Close() override {}
    std::uint64_t LeastFileSize(const Bench::Load&) const override { return 0; }
    bool FillsCache() const override { return false; }
};

class Copy final : public WithoutFile
{
public:
    void Write(const Bench::Load& inLoad) override
    {
        const Bench::Memory block(kBlockSize);
        CopyPieces(inLoad, block.Data(), [](std::size_t) {});
    }
};

//! What remembering the samples costs: a record of each, appended.
class Records final : public WithoutFile
{
public:
    void Write(const Bench::Load& inLoad) override
    {
        const Bench::Memory records(inLoad.PieceCount() * kRecordSize);
        std::size_t place = 0;
        std::uint64_t offset = 0;
        inLoad.ForEach([&](const Bench::Piece& inPiece, const unsigned char*) {
            const std::uint64_t record[] = {offset, inPiece.size, static_cast<std::uint64_t>(inPiece.sampleDuration),
                                            0};
            static_assert(sizeof(record) == kRecordSize);
            std::memcpy(records.Data() + place, record, kRecordSize);
            place += kRecordSize;
            offset += inPiece.size;
        });
        static_cast<const volatile char*>(records.Data())[0]; // So that nobody leaves the records out.
    }
};

//! The least that `Close` can cost where the tables come from records of 32 bytes: each record looked at once, its size
//! and its place stored in new memory as big-endian numbers of 32 bits, one write.
class RecordsToTables final : public Bench::Contestant
{
public:
    void Create(const Bench::Load& inLoad, const std::string& inPath) override
    {
        mFile = std::make_unique<OutputFile>(inPath, 0);
        mRecords = std::make_unique<Bench::Memory>(inLoad.PieceCount() * sizeof(Record));
    }

    void Write(const Bench::Load& inLoad) override
    {
        auto* record = reinterpret_cast<Record*>(mRecords->Data());
        std::uint64_t offset = 0;
        inLoad.ForEach([&](const Bench::Piece& inPiece, const unsigned char*) {
            *record++ = {offset, inPiece.size, {}};
            offset += inPiece.size;
        });
    }

    void Close() override
    {
        const std::size_t count = mRecords->Size() / sizeof(Record);
        const Bench::Memory tables(2 * count * sizeof(std::uint32_t));
        const auto* const records = reinterpret_cast<const Record*>(mRecords->Data());
        auto* const sizes = reinterpret_cast<std::uint32_t*>(tables.Data());
        std::uint32_t* const offsets = sizes + count;
        for (std::size_t i = 0; i < count; ++i)
        {
            sizes[i] = __builtin_bswap32(records[i].size);
            offsets[i] = __builtin_bswap32(static_cast<std::uint32_t>(records[i].offset));
        }
        mFile->Write(tables.Data(), tables.Size());
        mFile.reset();
    }

    std::uint64_t LeastFileSize(const Bench::Load& inLoad) const override { return inLoad.TableSize(); }

private:
    struct Record
    {
        std::uint64_t offset;
        std::uint32_t size;
        std::uint32_t rest[5];
    };
    static_assert(sizeof(Record) == kRecordSize);

    std::unique_ptr<OutputFile> mFile;
    std::unique_ptr<Bench::Memory> mRecords;
};

} // namespace

int main(int argc, char** argv)
{
    return Bench::Run(argc, argv,
                      {{"direct", [] { return std::make_unique<Direct>(); }},
                       {"copy-direct", [] { return std::make_unique<CopyDirect>(); }},
                       {"copy", [] { return std::make_unique<Copy>(); }},
                       {"records", [] { return std::make_unique<Records>(); }},
                       {"records-to-tables", [] { return std::make_unique<RecordsToTables>(); }}});
}
