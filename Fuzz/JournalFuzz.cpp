// Recovery from any journal beside any small movie: it takes no memory out of proportion, changes nothing when it
// fails, keeps the media as it is, and gives the same movie when it is run again. The files stay in memory.
//
// The input: flags (1 the journal is taken as it is, 2 the movie is), the size of the room for 'moov' in 16 bytes, the
// movie's length in 16 bits, the movie's media, and the journal's frames, each one's length in 8 bits and its records.

#include "JournalRecords.h"
#include "QTAtomRecords.h"
#include "Support.h"

#include <ByteSource.h>
#include <Reelmill/Recovery.h>
#include <ReportCapture.h>

#include <sanitizer/allocator_interface.h>

#include <algorithm>
#include <array>

namespace
{

constexpr const char16_t* kPath = u"/nowhere/movie.mov";
constexpr const char16_t* kJournalPath = u"/nowhere/movie.mov.journal";

std::size_t sAllocated = 0; // Bytes.
std::size_t sMostAllocated = 0;

void CountMalloc(const volatile void*, std::size_t inSize)
{
    sAllocated += inSize;
    sMostAllocated = std::max(sMostAllocated, sAllocated);
}

void CountFree(const volatile void* inMemory)
{
    sAllocated -= __sanitizer_get_allocated_size(inMemory);
}

void Append(Bytes& ioFile, const void* inData, std::size_t inSize)
{
    const auto* const bytes = static_cast<const std::uint8_t*>(inData);
    ioFile.insert(ioFile.end(), bytes, bytes + inSize);
}

void MakeMovie(Inspect::ByteReader& ioInput, bool inIsRaw, Bytes& outFile)
{
    const std::uint32_t room = 8 + 16 * ioInput.U8();
    const std::size_t size = ioInput.U16();
    if (!inIsRaw)
    {
        const qtn_FileTypeAtom fileType;
        Append(outFile, &fileType, sizeof(fileType));
        const std::array<QT::big_uint32_t, 2> skip{room, QT::FourCC("skip")};
        Append(outFile, skip.data(), sizeof(skip));
        outFile.resize(sizeof(fileType) + room);
        const std::array<QT::big_uint32_t, 4> rest{8, QT::FourCC("wide"), 8, QT::FourCC("mdat")};
        Append(outFile, rest.data(), sizeof(rest));
    }
    const auto media = ioInput.Bytes(std::min(size, ioInput.Rest().size()));
    Append(outFile, media.data(), media.size());
    if (!inIsRaw)
    {
        // Zeros stand at the end, as if the media behind were lost. A movie with such holes elsewhere may lose what is
        // before one in a second recovery only.
        const auto end =
            std::find_if(outFile.rbegin(), outFile.rend(), [](std::uint8_t inByte) { return inByte != 0; });
        std::replace(outFile.end() - static_cast<std::ptrdiff_t>(media.size()), end.base(), 0, 1);
    }
}

//! Puts sizes and checksums around the frames, which the fuzzer would not guess.
void MakeJournal(Inspect::ByteReader& ioInput, bool inIsRaw, Bytes& outFile)
{
    if (inIsRaw)
    {
        Append(outFile, ioInput.Rest().data(), ioInput.Rest().size());
        return;
    }
    QT::JournalHeader header;
    header.checksum = QT::ChecksumOf(&header, offsetof(QT::JournalHeader, checksum));
    Append(outFile, &header, sizeof(header));
    while (!ioInput.Rest().empty())
    {
        const std::size_t size = ioInput.U8();
        const auto records = ioInput.Bytes(std::min(size, ioInput.Rest().size()));
        QT::JournalFrameHeader frame;
        frame.size = QT::Low32(records.size());
        frame.checksum = QT::ChecksumOfFrame(outFile.size(), records.data(), frame.size);
        Append(outFile, &frame, sizeof(frame));
        Append(outFile, records.data(), records.size());
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* inData, std::size_t inSize)
{
    static const int sIsCounting = __sanitizer_install_malloc_and_free_hooks(CountMalloc, CountFree);
    Require(sIsCounting != 0, "memory is counted");
    MemoryFileSystem files(4096);
    const Ventra::FileSystemScope scope(files);
    const ReportCapture reports;
    Inspect::ByteReader input({inData, inSize});
    const std::uint8_t flags = input.U8();
    Bytes& movie = files.MakeFile(kPath);
    MakeMovie(input, (flags & 2) != 0, movie);
    Bytes& journal = files.MakeFile(kJournalPath);
    MakeJournal(input, (flags & 1) != 0, journal);
    const Bytes found = movie;
    const Bytes foundJournal = journal;

    QT::RecoveryReport report;
    QT::RecoveryOptions options;
    options.keepJournal = true;
    sAllocated = sMostAllocated = 0;
    const Tolbin::Result result = QT::RecoverMovie(kPath, report, options);
    Require(sMostAllocated < (1u << 24) + 1000 * (found.size() + journal.size()), "memory is in proportion");
    constexpr auto kResults = std::to_array<Tolbin::Result>(
        {0, QT::kQTErrBadJournal, QT::kQTErrOtherMovie, QT::kQTErrNothingWhole, QT::kQTErrTooLarge});
    Require(std::find(kResults.begin(), kResults.end(), result) != kResults.end(), "the result is a documented one");
    Require(files.GetOpenCount() == 0 && journal == foundJournal, "the journal is closed and left alone");
    if (result < 0)
    {
        Require(movie == found, "what cannot be recovered is left alone");
        return 0;
    }
    const std::size_t mediaEnd = report.movieSize - (report.isMovieAtomInFront ? 0 : report.movieAtomSize);
    const std::size_t mediaSize = report.bytesKept + report.bytesUnknown;
    Require(movie.size() == report.movieSize && mediaEnd <= found.size() && mediaSize <= mediaEnd,
            "the movie is as large as it was said to be");
    const auto mediaBegin = static_cast<std::ptrdiff_t>(mediaEnd - mediaSize);
    Require(std::equal(found.begin() + mediaBegin, found.begin() + static_cast<std::ptrdiff_t>(mediaEnd),
                       movie.begin() + mediaBegin),
            "the media is left alone");
    // Not always with the same result: a journal that was made up need not know of zeros at the end of what was kept.
    const Tolbin::Result again = QT::RecoverMovie(kPath, report, options);
    Require(std::find(kResults.begin(), kResults.end(), again) != kResults.end(), "it can be done again");
    return 0;
}
