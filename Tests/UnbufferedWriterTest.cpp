#include "UnbufferedWriter.h"

#include "Support/AllocationLimit.h"
#include "Support/Bytes.h"
#include "Support/FailingFileSystem.h"
#include "Support/RecordingFileSystem.h"
#include "Support/ReportCapture.h"
#include "Support/SettingScope.h"
#include "Support/ShortWriteFileSystem.h"
#include "Support/StrictFileSystem.h"
#include "Support/TempDirectory.h"
#include "Support/VolumeFileSystem.h"

#include <Tolbin/Config.h>
#include <Ventra/File.h>

#include <boost/make_shared.hpp>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <memory>
#include <optional>

using Tolbin::Result;
using Tolbin::utility::BinaryDataArray;
using Ventra::FileSystemType::kLocal;
using Ventra::FileSystemType::kNFS;
using Ventra::FileSystemType::kSMB;
using WriteCall = RecordingFileSystem::WriteCall;

namespace
{

const Result kIOError = Tolbin::ResultFromSystemError(EIO);

//! Blocks of 4096 bytes on sectors of 512.
class UnbufferedWriterTest : public testing::Test
{
protected:
    static constexpr std::int64_t kStart = 1024;

    //! Makes a writer on a new file; all its calls pass through `files`.
    Result Open(Ventra::FileSystem& inFileSystem, unsigned int inSectorSize = 512, std::int64_t inStart = kStart)
    {
        Release();
        files.emplace(inFileSystem);
        scope.emplace(*files);
        shared = boost::make_shared<Ventra::File>();
        EXPECT_EQ(shared->Create(path, Ventra::FileAccessFlags::kWrite, Ventra::FileShareModeFlags::kReadWrite,
                                 Ventra::FileCreateDispositionFlags::kCreateAlways,
                                 Ventra::FileAttributesFlags::kNormal, false),
                  0);
        Result result = -1;
        writer = CreateUnbufferedWriter(inSectorSize, result);
        EXPECT_EQ(result, 0);
        return writer->OpenExisting(shared, path, inStart);
    }

    Result Write(std::size_t inLength)
    {
        std::string data(inLength, ' ');
        std::generate(data.begin(), data.end(), [this] { return static_cast<char>(ByteAt(written++)); });
        return writer->Write(data.data(), data.size());
    }

    //! What `Write` wrote in all, behind a hole.
    BinaryDataArray Expected() const
    {
        BinaryDataArray bytes(static_cast<std::size_t>(kStart) + written);
        std::size_t place = 0;
        std::generate(bytes.begin() + kStart, bytes.end(), [&place] { return ByteAt(place++); });
        return bytes;
    }

    //! Repeats after a number of bytes that nothing else here is a multiple of.
    static std::uint8_t ByteAt(std::size_t inPlace) { return static_cast<std::uint8_t>(inPlace % 251); }

    //! Lets go of the files, before the file systems that they live on.
    void Release()
    {
        writer.reset();
        shared.reset();
    }

    //! Makes a file system that lives as long as the test.
    template <typename Double, typename... Arguments>
    Double& Keep(Arguments&&... inArguments)
    {
        const auto kept = std::make_shared<Double>(std::forward<Arguments>(inArguments)...);
        mKept.push_back(kept);
        return *kept;
    }

    ~UnbufferedWriterTest() override { Release(); }

    TempDirectory directory;
    Tolbin::UTF16String path = directory.Path16("media");
    VolumeFileSystem volume{Ventra::FileSystem::System(), kNFS, 512};
    SettingScope setting{"Reelmill.NFSWriteSizeInKBytes", "4"};
    std::optional<RecordingFileSystem> files;
    std::optional<Ventra::FileSystemScope> scope;
    boost::shared_ptr<Ventra::File> shared;
    boost::shared_ptr<UnbufferedWriter> writer;
    std::size_t written = 0;

private:
    std::vector<std::shared_ptr<Ventra::FileSystem>> mKept;
};

TEST_F(UnbufferedWriterTest, WritesWholeBlocksAndTheTailAtClose)
{
    struct Row
    {
        std::vector<std::size_t> lengths;
        std::vector<WriteCall> writes;
        std::optional<WriteCall> tail;
    };
    const Row rows[] = {
        {{0}, {}, {}},
        {{4095, 0}, {}, WriteCall{false, kStart, 4095}},
        {{4096}, {{true, kStart, 4096}}, {}},
        {{4095, 1}, {{true, kStart, 4096}}, {}},
        {{4097}, {{true, kStart, 4096}}, WriteCall{false, kStart + 4096, 1}},
        {{100, 3 * 4096 + 5, 10},
         {{true, kStart, 4096}, {true, kStart + 4096, 4096}, {true, kStart + 8192, 4096}},
         WriteCall{false, kStart + 12288, 115}},
    };
    for (const Row& row : rows)
    {
        written = 0;
        auto& strict = Keep<StrictFileSystem>(volume, 512);
        ASSERT_EQ(Open(strict), 0);
        for (const std::size_t length : row.lengths)
        {
            EXPECT_EQ(Write(length), 0);
            EXPECT_EQ(writer->GetFilePointer(), kStart + static_cast<std::int64_t>(written));
        }
        EXPECT_EQ(files->Writes(), row.writes);
        files->Forget();
        EXPECT_EQ(writer->Close(), 0);
        EXPECT_EQ(files->Writes(), row.tail ? std::vector<WriteCall>{*row.tail} : std::vector<WriteCall>{});
        EXPECT_EQ(files->OpenHandles(), 1u) << "the shared handle stays open";
        EXPECT_EQ(writer->GetFilePointer(), kStart + static_cast<std::int64_t>(written)) << "keeps answering";
        if (written > 0)
        {
            EXPECT_SAME_BYTES(ReadFile(directory.Path("media")), Expected());
        }
    }
}

//! Long pieces are not copied like short ones.
TEST_F(UnbufferedWriterTest, PiecesOfAnyLengthArriveAtAnyPlace)
{
    const SettingScope largeBlocks("Reelmill.NFSWriteSizeInKBytes", "4096");
    ASSERT_EQ(Open(volume), 0);
    for (std::size_t i = 1; i < 700; ++i)
    {
        ASSERT_EQ(Write(i), 0);
        ASSERT_EQ(Write(3800 + i), 0);
        ASSERT_EQ(Write(65536 - i), 0);
    }
    ASSERT_EQ(writer->Close(), 0);
    EXPECT_SAME_BYTES(ReadFile(directory.Path("media")), Expected());
}

TEST_F(UnbufferedWriterTest, BlocksAreAlignedToTheSector)
{
    struct Row
    {
        unsigned int sectorSize;
        std::uint64_t alignment;
        std::int64_t start;
    };
    for (const Row& row : {Row{1, 1, 7}, Row{4096, 4096, 8192}, Row{1 << 20, 4096, 1 << 20}, Row{3000, 8, 3000},
                           Row{3 << 20, 4096, 3 << 20}})
    {
        // Memory is aligned further than the 4 KiB block's length and offset can be.
        auto& strict = Keep<StrictFileSystem>(volume, row.alignment);
        ASSERT_EQ(Open(strict, row.sectorSize, row.start), 0) << row.sectorSize;
        EXPECT_EQ(Write(3 * 4096), 0) << row.sectorSize;
        EXPECT_EQ(strict.Accepted(), 3) << row.sectorSize;
        EXPECT_EQ(writer->Close(), 0);
    }
}

TEST_F(UnbufferedWriterTest, WithoutCloseTheTailIsLost)
{
    ASSERT_EQ(Open(volume), 0);
    EXPECT_EQ(Write(5000), 0);
    writer.reset();
    EXPECT_EQ(files->Writes().size(), 1u);
    EXPECT_EQ(files->OpenHandles(), 1u);
}

TEST_F(UnbufferedWriterTest, FailedBlockCountsAsWritten)
{
    auto& failing = Keep<FailingFileSystem>(volume, FileOperation::Write, 2);
    ASSERT_EQ(Open(failing), 0);
    EXPECT_EQ(Write(5000), 0);
    EXPECT_EQ(Write(9000), kIOError) << "the rest behind the failed block is not taken";
    EXPECT_EQ(files->Writes().size(), 2u);
    EXPECT_EQ(writer->GetFilePointer(), kStart + 2 * 4096);
    EXPECT_EQ(Write(10), 0);
    EXPECT_EQ(writer->Close(), 0);
    EXPECT_EQ(files->Writes().back(), (WriteCall{false, kStart + 2 * 4096, 10}));
}

TEST_F(UnbufferedWriterTest, FailuresOfCloseAreTold)
{
    auto& failing = Keep<FailingFileSystem>(volume, FileOperation::Write, 1);
    ASSERT_EQ(Open(failing), 0);
    EXPECT_EQ(Write(10), 0);
    EXPECT_EQ(writer->Close(), kIOError);
    EXPECT_EQ(files->OpenHandles(), 1u);
    auto& shortWrites = Keep<ShortWriteFileSystem>(volume, 0);
    ASSERT_EQ(Open(shortWrites), 0);
    EXPECT_EQ(Write(10), 0);
    EXPECT_EQ(writer->Close(), Tolbin::kResultShortWrite);
}

TEST_F(UnbufferedWriterTest, CheckedWriteToldWhatWasWritten)
{
    auto& shortWrites = Keep<ShortWriteFileSystem>(volume, 4);
    ASSERT_EQ(Open(shortWrites), 0);
    char data[] = "0123456789";
    unsigned int bytesWritten = 99;
    EXPECT_EQ(VentraFileWriteChk::Write(shared, data, 10, bytesWritten), 0);
    EXPECT_EQ(bytesWritten, 10u);
    EXPECT_EQ(VentraFileWriteChk::Write(shared, data, 0, bytesWritten), 0);
    EXPECT_EQ(bytesWritten, 0u);
    const auto notOpen = boost::make_shared<Ventra::File>();
    EXPECT_EQ(VentraFileWriteChk::Write(notOpen, data, 10, bytesWritten), Tolbin::ResultFromSystemError(EBADF));
}

TEST_F(UnbufferedWriterTest, OpenFailsWithTheFilesResult)
{
    auto& failing = Keep<FailingFileSystem>(volume, FileOperation::Open, 2);
    EXPECT_EQ(Open(failing), kIOError);
    EXPECT_EQ(writer->GetFilePointer(), kStart);
    auto& seeking = Keep<FailingFileSystem>(volume, FileOperation::Seek, 1);
    EXPECT_EQ(Open(seeking), kIOError);
    EXPECT_EQ(writer->GetFilePointer(), kStart);
    Release();
    EXPECT_EQ(files->OpenHandles(), 0u);
}

// ---- Contracts ------------------------------------------------------------------------------------------------------

void ExpectContractViolation(const std::function<void()>& inCall, const std::string& inExpression)
{
    ReportCapture reports;
    try
    {
        inCall();
        FAIL() << inExpression;
    }
    catch (const Tolbin::config::Error& error)
    {
        EXPECT_STREQ(error.what(), "An input contract violation has occurred!");
        EXPECT_EQ(error.GetLevel(), 0);
        EXPECT_EQ(error.GetDomain(), 105);
        EXPECT_EQ(error.GetCode(), 25);
    }
    ASSERT_EQ(reports.Reports().size(), 1u);
    EXPECT_EQ(reports.Reports()[0].kind, Tolbin::debug::ReportKind::Contract);
    EXPECT_EQ(reports.Reports()[0].expression, inExpression);
}

TEST_F(UnbufferedWriterTest, BrokenContractsAreReportedAndRaised)
{
    Result result = 0;
    ExpectContractViolation([&] { CreateUnbufferedWriter(0, result); }, "mDiskSectorSize > 0");
    ExpectContractViolation([&] { Open(volume, 512, 513); },
                            "inInitialOffset == inInitialOffset / mDiskSectorSize * mDiskSectorSize");
    ExpectContractViolation([&] { Open(volume, 512, -1); },
                            "inInitialOffset == inInitialOffset / mDiskSectorSize * mDiskSectorSize");
}

// ---- Block size and trace -------------------------------------------------------------------------------------------

struct BlockRow
{
    Ventra::FileSystemType::Type type;
    const char* kiloBytes; //!< Null: no setting.
    const char* blockSize;
};

const BlockRow kBlockRows[] = {
    {kLocal, nullptr, "20971520"}, {kLocal, "4", "20971520"},
    {kSMB, nullptr, "20971520"},   {kSMB, "64", "65536"},
    {kSMB, "0", "20971520"},       {kSMB, "text", "20971520"},
    {kSMB, "-1", "20971520"},      {kSMB, "12 KiB", "12288"},
    {kSMB, "4194304", "20971520"}, {kSMB, "4294967295", "20971520"},
    {kSMB, "4294967300", "4096"},  {kNFS, nullptr, "32768"},
    {kNFS, "0", "20971520"},       {kNFS, "", "20971520"},
    {kNFS, "1", "1024"},           {kNFS, "7 and more", "7168"},
};

TEST(UnbufferedWriterBlock, SizeComesFromVolumeAndSetting)
{
    std::vector<std::string> traces;
    auto previous =
        Tolbin::debug::SetTraceHandler([&](int inLevel, const std::string& inCategory, const std::string& inMessage) {
            traces.push_back(std::to_string(inLevel) + " " + inCategory + " " + inMessage);
        });
    for (const bool enabled : {false, true, false, true})
    {
        Tolbin::debug::SetTraceEnabled("UnbufferedWriter::OpenExisting()", enabled);
        for (const BlockRow& row : kBlockRows)
        {
            TempDirectory directory;
            Tolbin::UTF16String path = directory.Path16("media");
            VolumeFileSystem volume(Ventra::FileSystem::System(), row.type, 512);
            Ventra::FileSystemScope scope(volume);
            std::optional<SettingScope> setting;
            if (row.kiloBytes != nullptr)
            {
                setting.emplace(row.type == kNFS ? "Reelmill.NFSWriteSizeInKBytes" : "Reelmill.SMBWriteSizeInKBytes",
                                row.kiloBytes);
            }
            WriteFile(directory.Path("media"), "");
            Result result = 0;
            const auto writer = CreateUnbufferedWriter(512, result);
            EXPECT_EQ(writer->OpenExisting({}, path, 512), 0);
            const std::string text =
                std::string("1 UnbufferedWriter::OpenExisting() blocksize ") + row.blockSize + "\n";
            EXPECT_EQ(traces, enabled ? std::vector<std::string>{text} : std::vector<std::string>{})
                << row.type << " " << (row.kiloBytes == nullptr ? "unset" : row.kiloBytes);
            traces.clear();
        }
    }
    Tolbin::debug::SetTraceEnabled("UnbufferedWriter::OpenExisting()", false);
    Tolbin::debug::SetTraceHandler(std::move(previous));
}

TEST(UnbufferedWriterBlock, WithoutMemoryIsTracedAllTheSame)
{
    if (!AllocationLimit::Works())
    {
        GTEST_SKIP() << "a memory checker has taken over operator new";
    }
    int traces = 0;
    auto previous = Tolbin::debug::SetTraceHandler([&](int, const std::string&, const std::string&) { ++traces; });
    Tolbin::debug::SetTraceEnabled("UnbufferedWriter::OpenExisting()", true);
    TempDirectory directory;
    Tolbin::UTF16String path = directory.Path16("media");
    WriteFile(directory.Path("media"), "");
    Result result = 0;
    const auto writer = CreateUnbufferedWriter(512, result);
    {
        AllocationLimit limit(16 << 20);
        EXPECT_EQ(writer->OpenExisting({}, path, 512), Tolbin::kResultOutOfMemory);
    }
    EXPECT_EQ(traces, 1);
    Tolbin::debug::SetTraceEnabled("UnbufferedWriter::OpenExisting()", false);
    Tolbin::debug::SetTraceHandler(std::move(previous));
}

} // namespace
