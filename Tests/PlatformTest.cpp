#include "Support/Bytes.h"
#include "Support/FailingFileSystem.h"
#include "Support/RecordingFileSystem.h"
#include "Support/ReportCapture.h"
#include "Support/ShortWriteFileSystem.h"
#include "Support/TempDirectory.h"

#include <Reelmill/QTTypes.h>
#include <Tolbin/Allocator.h>
#include <Tolbin/Config.h>
#include <Tolbin/FileSupport.h>
#include <Ventra/DiskUtils.h>
#include <Ventra/File.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <numeric>
#include <optional>
#include <system_error>

using Tolbin::Result;
using Tolbin::UTF16String;
using Tolbin::utility::BinaryDataArray;
using Ventra::File;
using Ventra::FileSystemScope;

namespace
{

using namespace Ventra::FileAttributesFlags;
using namespace Ventra::FileCreateDispositionFlags;
using namespace Ventra::FilePointerMoveMethod;

Result SystemError(int inErrno)
{
    return Tolbin::ResultFromSystemError(inErrno);
}

const UTF16String kBadPath = u"/tmp/" + UTF16String(1, char16_t{0xD800}) + u"x";

Result Open(File& outFile, const UTF16String& inPath, Ventra::FileCreateDispositionFlags::Type inDisposition,
            Ventra::FileAttributesFlags::Type inAttributes = kNormal)
{
    return outFile.Create(inPath, Ventra::FileAccessFlags::kWrite, Ventra::FileShareModeFlags::kReadWrite,
                          inDisposition, inAttributes, false);
}

//! The flags with which this process has a file open, in order of its handles; the system's own record of them.
std::vector<int> OpenFlags(const std::string& inPath)
{
    std::vector<int> flags;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
    {
        std::error_code gone; // The directory's own handle is in the list.
        if (std::filesystem::read_symlink(entry.path(), gone) == inPath)
        {
            std::ifstream info("/proc/self/fdinfo/" + entry.path().filename().string());
            std::string label, position, value;
            info >> label >> position >> label >> value;
            flags.push_back(std::stoi(value, nullptr, 8));
        }
    }
    return flags;
}

// ---- Files on this machine's file systems ---------------------------------------------------------------------------

//! On a disk and in memory, where the machine has both.
class FileOn : public testing::TestWithParam<const char*>
{
protected:
    void SetUp() override
    {
        if (!IsThere())
        {
            GTEST_SKIP() << GetParam() << " cannot be written to";
        }
    }

    static bool IsThere() { return access(GetParam(), W_OK) == 0; }

    TempDirectory directory{IsThere() ? GetParam() : testing::TempDir()};
    std::string name = directory.Path("file");
    UTF16String path = directory.Path16("file");
};

TEST_P(FileOn, CreatesOpensAndReplaces)
{
    File file;
    EXPECT_EQ(Open(file, path, kOpenExisting), SystemError(ENOENT));
    WriteFile(name, "what was there before");
    ASSERT_EQ(Open(file, path, kOpenExisting), 0);
    EXPECT_NE(OpenFlags(name).at(0) & O_CLOEXEC, 0) << "child processes do not inherit it";
    unsigned int written = 0;
    EXPECT_EQ(file.Write("WHAT", 4, written), 0);
    EXPECT_EQ(file.Close(), 0);
    EXPECT_EQ(file.Close(), SystemError(EBADF)) << "closed once";
    EXPECT_BYTES(ReadFile(name), "'WHAT was there before'");
    ASSERT_EQ(Open(file, path, kCreateAlways), 0);
    EXPECT_TRUE(ReadFile(name).empty());
    File second;
    EXPECT_EQ(Open(second, path, kOpenExisting, kUnbuffered), 0) << "the first handle does not lock the file";
    EXPECT_EQ(file.GetFileSystemType(), Ventra::FileSystemType::kLocal);
    EXPECT_EQ(OpenFlags(name).size(), 2u);
    ASSERT_EQ(Open(second, directory.Path16("other"), kCreateAlways), 0);
    EXPECT_EQ(OpenFlags(name).size(), 1u) << "a file that is opened again is closed first";
}

TEST_P(FileOn, PointerMovesWithWritesAndSeeks)
{
    File file;
    ASSERT_EQ(Open(file, path, kCreateAlways), 0);
    unsigned int written = 0;
    long long position = -1;
    long long size = -1;
    EXPECT_EQ(file.GetFilePointer(position), 0);
    EXPECT_EQ(position, 0);
    EXPECT_EQ(file.Write("0123456789", 10, written), 0);
    EXPECT_EQ(written, 10u);
    EXPECT_EQ(file.SetFilePointer(-3, kEnd), 0);
    EXPECT_EQ(file.SetFilePointer(1, kCurrent), 0);
    EXPECT_EQ(file.GetFilePointer(position), 0);
    EXPECT_EQ(position, 8);
    EXPECT_EQ(file.SetFilePointer(-9, kCurrent), SystemError(EINVAL));
    EXPECT_EQ(file.SetFilePointer(-1, kBegin), SystemError(EINVAL));
    EXPECT_EQ(file.Write("x", 1, written), 0) << "a refused seek moves nothing";
    EXPECT_EQ(file.SetFilePointer(2, kEnd), 0);
    EXPECT_EQ(file.Write("end", 3, written), 0);
    EXPECT_EQ(file.SetFilePointer(1, kBegin), 0);
    EXPECT_EQ(file.Write("", 0, written), 0);
    EXPECT_EQ(written, 0u);
    EXPECT_EQ(file.GetSize(size), 0);
    EXPECT_EQ(size, 15);
    EXPECT_EQ(file.Sync(), 0);
    EXPECT_EQ(file.Close(), 0);
    EXPECT_BYTES(ReadFile(name), "'01234567x9' 00 00 'end'");
}

TEST_P(FileOn, UnbufferedWritesOfAnyShapeGiveTheSameBytes)
{
    std::vector<std::uint8_t> memory(4 * 65536);
    std::iota(memory.begin(), memory.end(), std::uint8_t{1});
    const auto misalignment = reinterpret_cast<std::uintptr_t>(memory.data()) % 4096;
    const std::uint8_t* aligned = memory.data() + (4096 - misalignment);
    struct Step
    {
        long long offset;
        const std::uint8_t* data;
        unsigned int length;
    };
    const std::vector<Step> shapes[] = {
        {{0, aligned, 65536}, {65536, aligned, 4096}},                           // nothing is out of line
        {{0, aligned, 8192}, {8192, aligned + 1, 8192}, {16384, aligned, 4096}}, // an address
        {{0, aligned, 8192}, {8192, aligned, 8191}},                             // a length
        {{0, aligned, 4096}, {4097, aligned, 4096}, {16384, aligned, 8192}},     // an offset
        {{0, aligned + 3, 5}, {5, aligned + 7, 70000}},                          // everything
    };
    for (const std::vector<Step>& shape : shapes)
    {
        BinaryDataArray contents[2];
        for (const auto attributes : {kNormal, kUnbuffered})
        {
            File file;
            ASSERT_EQ(Open(file, path, kCreateAlways, attributes), 0);
            for (const Step& step : shape)
            {
                unsigned int written = 0;
                EXPECT_EQ(file.SetFilePointer(step.offset, kBegin), 0);
                EXPECT_EQ(file.Write(step.data, step.length, written), 0);
                EXPECT_EQ(written, step.length);
            }
            EXPECT_EQ(file.Close(), 0);
            contents[attributes == kNormal ? 0 : 1] = ReadFile(name);
        }
        EXPECT_SAME_BYTES(contents[1], contents[0]);
        EXPECT_EQ(contents[0].size(), static_cast<std::size_t>(shape.back().offset) + shape.back().length);
    }
}

TEST_P(FileOn, DiskBufferIsAPowerOfTwoUpTo4MiB)
{
    unsigned int size = 0;
    WriteFile(name, "");
    EXPECT_EQ(Ventra::DiskUtils::GetEfficientDiskBufferSizeFromPath(path, size), 0);
    EXPECT_TRUE(size >= 512 && size <= 4u << 20 && (size & (size - 1)) == 0) << size;
    EXPECT_EQ(Ventra::DiskUtils::GetEfficientDiskBufferSizeFromPath(directory.Path16("none"), size),
              SystemError(ENOENT));
    EXPECT_EQ(size, 4096u);
}

TEST_P(FileOn, CreatedIsTheBirthTimeElseTheLastStatusChange)
{
    using namespace std::chrono;
    using Tolbin::filesupport::StorageType;
    WriteFile(name, "");
    struct statx status;
    ASSERT_EQ(statx(AT_FDCWD, name.c_str(), 0, STATX_BTIME | STATX_CTIME, &status), 0);
    const auto time = (status.stx_mask & STATX_BTIME) != 0 ? status.stx_btime : status.stx_ctime;
    const auto expected = duration_cast<microseconds>(seconds(time.tv_sec) + nanoseconds(time.tv_nsec));
    ASSERT_EQ(chmod(name.c_str(), 0600), 0); // moves the last status change, which a birth time does not follow
    if ((status.stx_mask & STATX_BTIME) != 0)
    {
        EXPECT_EQ(Tolbin::filesupport::File(path, StorageType::kFileSystem).Created().time_since_epoch(), expected);
    }
    const Tolbin::filesupport::File none(directory.Path16("none"), StorageType::kFileSystem);
    EXPECT_THROW(none.Created(), std::system_error);
}

INSTANTIATE_TEST_SUITE_P(Volumes, FileOn, testing::Values("/var/tmp", "/dev/shm"),
                         [](const auto& inRow) { return std::string(inRow.param) == "/dev/shm" ? "Memory" : "Disk"; });

TEST(FileUnbuffered, BypassesTheCacheUntilTheDeviceCannot)
{
    TempDirectory directory("/var/tmp");
    const std::string name = directory.Path("file");
    alignas(4096) static char data[8192];
    unsigned int written = 0;
    WriteFile(name, "");
    const int plain = open(name.c_str(), O_RDWR | O_DIRECT);
    if (plain < 0)
    {
        GTEST_SKIP() << "/var/tmp has no O_DIRECT";
    }
    ::close(plain);
    File file;
    ASSERT_EQ(Open(file, directory.Path16("file"), kOpenExisting, kUnbuffered), 0);
    EXPECT_NE(OpenFlags(name).at(0) & O_DIRECT, 0);
    EXPECT_EQ(file.Write(data, sizeof(data), written), 0);
    EXPECT_NE(OpenFlags(name).at(0) & O_DIRECT, 0) << "a write in order goes to the device";
    EXPECT_EQ(file.Write(data + 1, 100, written), 0);
    EXPECT_EQ(written, 100u);
    EXPECT_EQ(OpenFlags(name).at(0) & O_DIRECT, 0) << "from then on through the cache";
}

TEST(FileUnbuffered, FallsBackWhereTheFileSystemRefuses)
{
    const char* const name = "/proc/self/coredump_filter"; // a number; procfs knows no O_DIRECT
    const int plain = open(name, O_RDWR | O_DIRECT);
    if (plain >= 0)
    {
        ::close(plain);
        GTEST_SKIP() << "procfs of this machine has O_DIRECT";
    }
    const BinaryDataArray before = ReadFile(name);
    File file;
    unsigned int written = 0;
    ASSERT_EQ(Open(file, u"/proc/self/coredump_filter", kOpenExisting, kUnbuffered), 0);
    EXPECT_EQ(file.Write("0x5a", 4, written), 0);
    EXPECT_EQ(written, 4u);
    EXPECT_BYTES(ReadFile(name), "'0000005a' 0A");
    std::ofstream(name) << "0x" << std::string(before.begin(), before.end());
    EXPECT_SAME_BYTES(ReadFile(name), before);
}

TEST(File, OperationsOnAClosedFileFail)
{
    File file;
    unsigned int written = 7;
    long long value = 0;
    EXPECT_EQ(file.Write("x", 1, written), SystemError(EBADF));
    EXPECT_EQ(written, 0u);
    char byte = 0;
    EXPECT_EQ(file.Read(&byte, 1, written), SystemError(EBADF));
    EXPECT_EQ(file.SetSize(0), SystemError(EBADF));
    EXPECT_EQ(file.SetFilePointer(0, kBegin), SystemError(EBADF));
    EXPECT_EQ(file.GetFilePointer(value), SystemError(EBADF));
    EXPECT_EQ(file.GetSize(value), SystemError(EBADF));
    EXPECT_EQ(file.Sync(), SystemError(EBADF));
    EXPECT_EQ(file.Close(), SystemError(EBADF));
    EXPECT_EQ(file.GetFileSystemType(), Ventra::FileSystemType::kLocal);
}

TEST(File, IsReadCutAndRemoved)
{
    const TempDirectory directory;
    const UTF16String path = directory.Path16("file");
    File file;
    unsigned int count = 0;
    ASSERT_EQ(Open(file, path, Ventra::FileCreateDispositionFlags::kCreateNew), 0);
    ASSERT_EQ(file.Write("0123456789", 10, count), 0);
    EXPECT_EQ(file.SetSize(6), 0);
    ASSERT_EQ(file.SetFilePointer(2, kBegin), 0);
    char bytes[8] = {};
    EXPECT_EQ(file.Read(bytes, 3, count), 0);
    EXPECT_EQ(std::string(bytes, count), "234");
    EXPECT_EQ(file.Read(bytes, 8, count), 0);
    EXPECT_EQ(std::string(bytes, count), "5") << "up to the end of the file";
    EXPECT_EQ(file.SetSize(7), 0);
    EXPECT_EQ(file.Close(), 0);
    EXPECT_BYTES(ReadFile(directory.Path("file")), "'012345' 00");

    EXPECT_EQ(Open(file, path, Ventra::FileCreateDispositionFlags::kCreateNew), SystemError(EEXIST));
    EXPECT_EQ(Ventra::FileSystem::Current().Remove(path), 0);
    EXPECT_EQ(Ventra::FileSystem::Current().Remove(path), SystemError(ENOENT));
    EXPECT_EQ(Ventra::FileSystem::Current().Remove(kBadPath), SystemError(EILSEQ));
}

TEST(File, PathThatIsNotUTF16IsAnError)
{
    File file;
    unsigned int size = 0;
    EXPECT_EQ(Open(file, kBadPath, kCreateAlways), SystemError(EILSEQ));
    EXPECT_EQ(file.Close(), SystemError(EBADF)) << "no file is open";
    EXPECT_EQ(Ventra::DiskUtils::GetEfficientDiskBufferSizeFromPath(kBadPath, size), SystemError(EILSEQ));
    EXPECT_EQ(size, 4096u);
    try
    {
        Tolbin::filesupport::File(kBadPath, Tolbin::filesupport::StorageType::kFileSystem).Created();
        FAIL();
    }
    catch (const std::system_error& error)
    {
        EXPECT_EQ(error.code().value(), EILSEQ);
    }
}

// ---- Faults below File ----------------------------------------------------------------------------------------------

class FileFaults : public testing::Test
{
protected:
    //! Writes 10 digits to a file on `inFileSystem`.
    Result Write(Ventra::FileSystem& inFileSystem, unsigned int& outWritten)
    {
        FileSystemScope scope(inFileSystem);
        File file;
        EXPECT_EQ(Open(file, path, kCreateAlways), 0);
        const Result result = file.Write("0123456789", 10, outWritten);
        long long position = 0;
        EXPECT_EQ(file.GetFilePointer(position), 0);
        EXPECT_EQ(position, outWritten) << "the pointer stands behind what was written";
        EXPECT_EQ(file.Close(), 0);
        content = ReadFile(directory.Path("file"));
        return result;
    }

    TempDirectory directory;
    UTF16String path = directory.Path16("file");
    Ventra::FileSystem& system = Ventra::FileSystem::System();
    BinaryDataArray content;
};

TEST_F(FileFaults, PartialWritesAreContinued)
{
    unsigned int written = 0;
    ShortWriteFileSystem shortWrites(system, 3);
    EXPECT_EQ(Write(shortWrites, written), 0);
    EXPECT_EQ(written, 10u);
    EXPECT_EQ(shortWrites.Writes(), 4);
    EXPECT_BYTES(content, "'0123456789'");

    ShortWriteFileSystem nothing(system, 0);
    EXPECT_EQ(Write(nothing, written), 0);
    EXPECT_EQ(written, 0u) << "no progress and no error";
}

TEST_F(FileFaults, ErrorTellsWhatWasWrittenBefore)
{
    unsigned int written = 0;
    FailingFileSystem full(system, FileOperation::Write, 3, FailingFileSystem::FromThenOn, ENOSPC);
    ShortWriteFileSystem shortWrites(full, 4);
    EXPECT_EQ(Write(shortWrites, written), SystemError(ENOSPC));
    EXPECT_EQ(written, 8u);
    EXPECT_BYTES(content, "'01234567'");
}

TEST_F(FileFaults, InterruptedCallsAreRetried)
{
    unsigned int written = 0;
    FailingFileSystem interrupted(system, FileOperation::Write, 2, FailingFileSystem::Once, EINTR);
    ShortWriteFileSystem shortWrites(interrupted, 4);
    EXPECT_EQ(Write(shortWrites, written), 0);
    EXPECT_EQ(written, 10u);
    EXPECT_BYTES(content, "'0123456789'");

    for (const FileOperation operation :
         {FileOperation::Open, FileOperation::Read, FileOperation::SetSize, FileOperation::Sync})
    {
        FailingFileSystem failing(system, operation, 1, FailingFileSystem::Once, EINTR);
        FileSystemScope scope(failing);
        File file;
        char byte = 1;
        EXPECT_EQ(Open(file, path, kCreateAlways), 0) << static_cast<int>(operation);
        EXPECT_EQ(file.SetSize(1), 0) << static_cast<int>(operation);
        EXPECT_EQ(file.Read(&byte, 1, written), 0) << static_cast<int>(operation);
        EXPECT_EQ(byte, 0) << static_cast<int>(operation);
        EXPECT_EQ(file.Sync(), 0) << static_cast<int>(operation);
        EXPECT_EQ(failing.Calls(), 2) << static_cast<int>(operation);
    }

    FailingFileSystem closing(system, FileOperation::Close, 1, FailingFileSystem::Once, EINTR);
    RecordingFileSystem files(closing);
    FileSystemScope scope(files);
    {
        File file;
        EXPECT_EQ(Open(file, path, kCreateAlways), 0);
        EXPECT_LE(file.Close(), 0);
    }
    EXPECT_EQ(closing.Calls(), 1) << "a handle that was interrupted while closing is gone";
    EXPECT_EQ(files.OpenHandles(), 0u);
}

//! Moves nothing, and refuses what macOS refuses: more than INT_MAX bytes in a call.
class IntMaxFileSystem final : public ForwardingFileSystem
{
public:
    explicit IntMaxFileSystem(const void* inBegin) : mBegin(static_cast<const char*>(inBegin)) {}

    Result Read(Handle, std::int64_t inOffset, void* outData, std::size_t inLength, std::size_t& outRead) override
    {
        return Move(inOffset, outData, inLength, outRead);
    }

    Result Write(Handle, std::int64_t inOffset, const void* inData, std::size_t inLength,
                 std::size_t& outWritten) override
    {
        return Move(inOffset, inData, inLength, outWritten);
    }

private:
    Result Move(std::int64_t inOffset, const void* inData, std::size_t inLength, std::size_t& outMoved)
    {
        EXPECT_EQ(static_cast<const char*>(inData), mBegin + inOffset);
        EXPECT_EQ(inOffset % 4096, 0) << "an unbuffered handle wants it so";
        outMoved = inLength <= INT_MAX ? inLength : 0;
        return inLength <= INT_MAX ? 0 : SystemError(EINVAL);
    }

    const char* mBegin;
};

TEST_F(FileFaults, LongTransfersAreDivided)
{
    constexpr unsigned int kLength = 0xA0000001; // 2.5 GiB and a byte; nobody touches them.
    void* const data = mmap(nullptr, kLength, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(data, MAP_FAILED);
    IntMaxFileSystem files(data);
    FileSystemScope scope(files);
    File file;
    unsigned int count = 0;
    ASSERT_EQ(Open(file, path, kCreateAlways), 0);
    EXPECT_EQ(file.Write(data, kLength, count), 0);
    EXPECT_EQ(count, kLength);
    EXPECT_EQ(file.SetFilePointer(0, kBegin), 0);
    EXPECT_EQ(file.Read(data, kLength, count), 0);
    EXPECT_EQ(count, kLength);
    munmap(data, kLength);
}

// ---- Results --------------------------------------------------------------------------------------------------------

TEST(Results, CarryTheSystemsErrors)
{
    EXPECT_EQ(static_cast<std::uint32_t>(SystemError(ENOSPC)), 0xA00E001Cu);
    for (const int error : {1, ENOENT, EIO, 0xFFFF})
    {
        EXPECT_LT(SystemError(error), 0);
        EXPECT_EQ(Tolbin::SystemErrorFromResult(SystemError(error)), error);
    }
    for (const int error : {0, -1, 0x10000})
    {
        EXPECT_EQ(SystemError(error), Tolbin::kResultFailed);
    }
    for (const Result result :
         {Tolbin::kResultSuccess, Tolbin::kResultFailed, Tolbin::kResultSystemErrorBase, QT::kQTErrBadState, 5, -5})
    {
        EXPECT_EQ(Tolbin::SystemErrorFromResult(result), 0) << result;
    }
}

TEST(Results, AreSpelledOut)
{
    std::vector<std::string> sentences;
    for (const std::uint32_t code : {0u, 0xA00F0001u, 0xA00F0002u, 0xA00F0006u, 0xA0810001u, 0xA0810002u, 0xA0810003u,
                                     0xA0810004u, 0xA0810005u, 0xA0810006u, 0xA00E0002u, 0xA00E001Cu, 0xDEADBEEFu})
    {
        const std::string sentence = Tolbin::ResultMessage(Tolbin::MakeResult(code));
        ASSERT_FALSE(sentence.empty()) << std::hex << code;
        EXPECT_NE(sentence.back(), '.') << sentence;
        EXPECT_EQ(std::count(sentences.begin(), sentences.end(), sentence), 0) << sentence << " stands for two results";
        sentences.push_back(sentence);
    }
    EXPECT_NE(sentences[11].find("No space left on device"), std::string::npos) << sentences[11];
    EXPECT_TRUE(sentences[12].find("DEADBEEF") != std::string::npos ||
                sentences[12].find("deadbeef") != std::string::npos)
        << sentences[12];
}

// ---- Strings --------------------------------------------------------------------------------------------------------

TEST(Strings, ConvertBetweenUTF16AndUTF8)
{
    struct Row
    {
        UTF16String wide;
        std::string narrow;
    };
    for (const Row& row : {Row{u"", ""}, Row{u"plain", "plain"}, Row{u"\u007F\u0080\u07FF", "\x7F\xC2\x80\xDF\xBF"},
                           Row{u"\u0800\uD7FF\uE000\uFFFF", "\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF"},
                           Row{u"\U00010000\U0010FFFF", "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"},
                           Row{UTF16String(u"a\0b", 3), std::string("a\0b", 3)}})
    {
        EXPECT_EQ(Tolbin::string::UTF16to8(row.wide), row.narrow);
        EXPECT_EQ(Tolbin::string::UTF16toStdString(row.wide), row.narrow);
        EXPECT_EQ(Tolbin::string::UTF8to16(row.narrow), row.wide);
        EXPECT_TRUE(Tolbin::string::IsValidUTF16(row.wide));
    }
}

TEST(Strings, ReplaceWhatIsNotUnicode)
{
    const char16_t high = 0xD83C;
    const char16_t low = 0xDFAC;
    const std::string replacement = "\xEF\xBF\xBD";
    struct Row
    {
        UTF16String wide;
        std::string narrow;
    };
    for (const Row& row :
         {Row{{high}, replacement}, Row{{low}, replacement}, Row{{low, high}, replacement + replacement},
          Row{{high, u'x'}, replacement + "x"}, Row{{high, high, low}, replacement + "\xF0\x9F\x8E\xAC"}})
    {
        EXPECT_EQ(Tolbin::string::UTF16to8(row.wide), row.narrow);
        EXPECT_FALSE(Tolbin::string::IsValidUTF16(row.wide));
    }
    EXPECT_EQ(Tolbin::string::UTF8to16("a\x80z"), u"a\uFFFDz") << "a stray continuation";
    EXPECT_EQ(Tolbin::string::UTF8to16("\xC0\xAF"), u"\uFFFD\uFFFD") << "an overlong form";
    EXPECT_EQ(Tolbin::string::UTF8to16("\xED\xA0\x80"), u"\uFFFD\uFFFD\uFFFD") << "a surrogate";
    EXPECT_EQ(Tolbin::string::UTF8to16("\xF4\x90\x80\x80"), u"\uFFFD\uFFFD\uFFFD\uFFFD") << "beyond U+10FFFF";
    EXPECT_EQ(Tolbin::string::UTF8to16("\xE2\x82"), u"\uFFFD\uFFFD") << "cut short";
    EXPECT_EQ(Tolbin::string::AsciiToUTF16("A\x7F\x80\xFF"), u"A\u007F\uFFFD\uFFFD");
}

TEST(Strings, PathsKeepEveryByte)
{
    struct Row
    {
        std::string bytes;
        UTF16String wide;
    };
    for (const Row& row : {Row{"a\xFF.mov", {u'a', 0xDCFF, u'.', u'm', u'o', u'v'}},
                           Row{"\xF0\x9F\x8E\xAC\xF0\x9F\x8E", {0xD83C, 0xDFAC, 0xDCF0, 0xDC9F, 0xDC8E}},
                           Row{"\xED\xA0\x80", {0xDCED, 0xDCA0, 0xDC80}}, Row{"\xC0\xAF", {0xDCC0, 0xDCAF}}})
    {
        EXPECT_EQ(Tolbin::string::PathToUTF16(row.bytes), row.wide);
    }
    for (unsigned int bits = 0; bits < 1u << 16; ++bits)
    {
        const std::string bytes = {'\xED', static_cast<char>(bits >> 8), static_cast<char>(bits), '\x80'};
        const bool isPath = bytes.find('\0') == std::string::npos;
        std::string back;
        EXPECT_EQ(Tolbin::string::UTF16ToPath(Tolbin::string::PathToUTF16(bytes), back),
                  isPath ? 0 : SystemError(EINVAL));
        EXPECT_TRUE(back == bytes || !isPath) << std::hex << bits;
    }
    std::string path;
    for (const char16_t unit : UTF16String{0xD800, 0xDBFF, 0xDC00, 0xDC7F, 0xDD00, 0xDFFF})
    {
        EXPECT_EQ(Tolbin::string::UTF16ToPath({u'a', unit, u'b'}, path), SystemError(EILSEQ)) << int{unit};
    }
}

// ---- Reports, trace, settings ---------------------------------------------------------------------------------------

void FailAt(int inValue, int& ioEvaluated)
{
    TOLBIN_ASSERT(inValue < 0, "value " << (++ioEvaluated, inValue) << "\n");
}

TEST(Reports, SiteThatIsSilencedReportsAndFormatsNoMore)
{
    int evaluated = 0;
    {
        ReportCapture reports;
        FailAt(-1, evaluated);
        FailAt(12345, evaluated);
        ASSERT_EQ(reports.Reports().size(), 1u);
        EXPECT_EQ(reports.Reports()[0].kind, Tolbin::debug::ReportKind::Assert);
        EXPECT_NE(reports.Reports()[0].file.find("PlatformTest.cpp"), std::string::npos);
        EXPECT_GT(reports.Reports()[0].line, 0);
        EXPECT_EQ(reports.Take(), ReportTexts{"inValue < 0|value 12345\n"});
    }
    int reported = 0;
    const auto silencing = [&](const Tolbin::debug::Report&, bool& ioDisabled) {
        ++reported;
        ioDisabled = true;
        return true; // asks for a debugger that is not there
    };
    const auto previous = Tolbin::debug::SetReportHandler(silencing);
    FailAt(1, evaluated);
    FailAt(2, evaluated);
    Tolbin::debug::SetReportHandler(previous);
    EXPECT_EQ(reported, 1);
    EXPECT_EQ(evaluated, 2);
}

TEST(Reports, DefaultHandlerPrintsOneLine)
{
    bool disabled = false;
    const auto previous = Tolbin::debug::SetReportHandler({});
    testing::internal::CaptureStderr();
    EXPECT_FALSE(
        Tolbin::debug::BreakAfterAssertDialog(disabled, "a < b", "it is not\n", "some.cpp", 42, "void f()", 1));
    const std::string line = testing::internal::GetCapturedStderr();
    Tolbin::debug::SetReportHandler(previous);
    EXPECT_FALSE(disabled);
    EXPECT_EQ(std::count(line.begin(), line.end(), '\n'), 1) << line;
    EXPECT_EQ(line.back(), '\n');
    for (const char* part : {"a < b", "it is not", "some.cpp", "42"})
    {
        EXPECT_NE(line.find(part), std::string::npos) << part << " is missing in " << line;
    }
}

TEST(Reports, TrapsOnlyUnderADebugger)
{
    EXPECT_FALSE(Tolbin::debug::IsDebuggerAttached()) << "run this test without one";
    const pid_t child = fork();
    if (child == 0)
    {
        if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0)
        {
            _exit(2);
        }
        Tolbin::debug::SetReportHandler([](const Tolbin::debug::Report&, bool&) { return true; });
        Tolbin::debug::AssertSite site;
        site.Report("false", "", __FILE__, __LINE__, "");
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 2)
    {
        GTEST_SKIP() << "no process may be traced";
    }
    EXPECT_TRUE(WIFSTOPPED(status) && WSTOPSIG(status) == SIGTRAP) << status;
    if (WIFSTOPPED(status))
    {
        kill(child, SIGKILL);
        EXPECT_EQ(waitpid(child, &status, 0), child);
    }
}

TEST(Trace, PassesMessagesAndCountsChanges)
{
    std::vector<std::string> traces;
    const auto handler = [&](int inLevel, const std::string& inCategory, const std::string& inMessage) {
        traces.push_back(inCategory + std::to_string(inLevel) + inMessage);
    };
    const auto previous = Tolbin::debug::SetTraceHandler(handler);
    EXPECT_FALSE(Tolbin::debug::TraceEnabled("test", 1, true));
    const std::uint32_t count = Tolbin::debug::TraceChangeCount;
    EXPECT_NE(count, 0u);
    Tolbin::debug::SetTraceEnabled("test", true);
    EXPECT_NE(Tolbin::debug::TraceChangeCount, count);
    EXPECT_TRUE(Tolbin::debug::TraceEnabled("test", 1, true));
    EXPECT_FALSE(Tolbin::debug::TraceEnabled("other", 1, true));
    Tolbin::debug::Trace(1, "test", "message\n");
    Tolbin::debug::SetTraceEnabled("test", false);
    EXPECT_FALSE(Tolbin::debug::TraceEnabled("test", 1, true));
    Tolbin::debug::SetTraceHandler(previous);
    EXPECT_EQ(traces, std::vector<std::string>{"test1message\n"});
}

TEST(DebugDatabase, ReadsNumbersTheWayTextStartsWithThem)
{
    auto& database = Tolbin::debug::DebugDatabase::Instance();
    EXPECT_EQ(database.GetEntryAs<unsigned int>("test.number", 32), 32u);
    EXPECT_EQ(database.GetEntry("test.number", "none"), "none");
    struct Row
    {
        const char* text;
        unsigned int number;
    };
    for (const Row& row : {Row{"17", 17}, Row{"17 KiB", 17}, Row{"", 0}, Row{"KiB 17", 0}, Row{"-1", 0},
                           Row{"4294967295", 4294967295u}, Row{"4294967297", 1}, Row{"18446744073709551621", 5}})
    {
        database.SetEntry("test.number", row.text);
        EXPECT_EQ(database.GetEntryAs<unsigned int>("test.number", 32), row.number) << row.text;
        EXPECT_EQ(database.GetEntry("test.number", "none"), row.text);
    }
    database.RemoveEntry("test.number");
    EXPECT_EQ(database.GetEntryAs<unsigned int>("test.number", 32), 32u);
}

// The variable is read once in a process, hence the second run of this test alone.
TEST(DebugDatabase, StartsWithTheEnvironmentsEntries)
{
    if (std::getenv("TOLBIN_DEBUG_DATABASE") == nullptr)
    {
        const std::string program = std::filesystem::read_symlink("/proc/self/exe");
        const std::string command = "TOLBIN_DEBUG_DATABASE='test.one=12;;test.two=a=b;broken;test.three=' '" + program +
                                    "' --gtest_filter=DebugDatabase.StartsWithTheEnvironmentsEntries >/dev/null 2>&1";
        EXPECT_EQ(std::system(command.c_str()), 0);
        return;
    }
    auto& database = Tolbin::debug::DebugDatabase::Instance();
    EXPECT_EQ(database.GetEntryAs<unsigned int>("test.one", 1), 12u);
    EXPECT_EQ(database.GetEntry("test.two", "none"), "a=b");
    EXPECT_EQ(database.GetEntry("test.three", "none"), "");
    EXPECT_EQ(database.GetEntry("test.four", "none"), "none");
}

TEST(ThrowError, CarriesTextAndNumbers)
{
    const Tolbin::config::ReplacementValue none;
    try
    {
        Tolbin::config::ThrowError(3, "$$$/a/key=The text = this", 1, 2, true, none, none, none, none);
        FAIL();
    }
    catch (const Tolbin::config::Error& error)
    {
        EXPECT_STREQ(error.what(), "The text = this");
        EXPECT_EQ(error.GetLevel(), 3);
        EXPECT_EQ(error.GetDomain(), 1);
        EXPECT_EQ(error.GetCode(), 2);
    }
}

// ---- Memory ---------------------------------------------------------------------------------------------------------

TEST(MemoryRecycler, GivesBackAllOfALargeBlockAndRefusesWhatCannotBe)
{
    using Tolbin::allocator::MemoryRecycler;
    const auto pages = [] {
        std::ifstream status("/proc/self/statm");
        std::size_t count = 0;
        status >> count;
        return count;
    };
    constexpr std::size_t kSize = 64 * MemoryRecycler::kMappedSize + 1;
    const std::size_t before = pages();
    for (int i = 0; i < 10; ++i)
    {
        auto* const block = static_cast<char*>(MemoryRecycler::Allocate(kSize));
        EXPECT_EQ(block[0] + block[kSize - 1], 0) << "all of it can be touched";
        MemoryRecycler::Recycle(block, kSize);
    }
    EXPECT_LT(pages(), before + kSize / 4096);
    // The last is address space that a process has, and memory that no machine has.
    for (const std::size_t size :
         {~std::size_t{0}, ~std::size_t{0} / 2, ~std::size_t{0} - (1u << 20), std::size_t{1} << 46})
    {
        EXPECT_THROW(MemoryRecycler::Allocate(size), std::bad_alloc) << size;
    }
}

} // namespace
