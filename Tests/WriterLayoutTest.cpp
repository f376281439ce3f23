#include "Support/MovieTest.h"
#include "Support/RecordingFileSystem.h"
#include "Support/SettingScope.h"
#include "Support/SparseFileSystem.h"

#include <Ventra/File.h>

#include <algorithm>
#include <random>
#include <vector>

using Tolbin::utility::BinaryDataArray;
using WriteCall = RecordingFileSystem::WriteCall;

namespace
{

using WriterLayout = MovieTest;

TEST_F(WriterLayout, HeadMatchesItsTable)
{
    RecordingFileSystem files(Ventra::FileSystem::Current());
    On scope(*this, files);
    ASSERT_EQ(Create(), 0);
    EXPECT_SAME_BYTES(Movie(), Bytes("00 00 00 20 66 74 79 70 71 74 20 20 20 05 03 00 71 74 20 20 00*12 "
                                     "#1048528 'skip' 00*1048520 00 00 00 08 'wide' 00 00 00 08 'mdat'"));
    EXPECT_EQ(files.Writes(), (std::vector<WriteCall>{{false, 0, 32},
                                                      {false, 32, 4},
                                                      {false, 36, 4},
                                                      {false, 40, 1048520},
                                                      {false, kWideOffset, 4},
                                                      {false, kWideOffset + 4, 4},
                                                      {false, kWideOffset + 8, 4},
                                                      {false, kWideOffset + 12, 4}}));
    ASSERT_EQ(files.Opens().size(), 2u);
    EXPECT_EQ(files.Opens()[0].access, 2);
    EXPECT_EQ(files.Opens()[0].share, 3);
    EXPECT_EQ(files.Opens()[0].disposition, 2);
    EXPECT_EQ(files.Opens()[0].attributes, 1);
    EXPECT_EQ(files.Opens()[1].access, 2);
    EXPECT_EQ(files.Opens()[1].share, 3);
    EXPECT_EQ(files.Opens()[1].disposition, 8);
    EXPECT_EQ(files.Opens()[1].attributes, 4);
    EXPECT_FALSE(files.Opens()[0].inheritable || files.Opens()[1].inheritable);
}

TEST_F(WriterLayout, MediaStartsOnADiskBufferAtOrBeyond1MiB)
{
    struct Row
    {
        unsigned int bufferSize;
        std::int64_t mediaOffset;
    };
    for (const Row& row : {Row{1, 1 << 20}, Row{512, 1 << 20}, Row{65536, 1 << 20}, Row{1 << 20, 1 << 20},
                           Row{(1 << 20) + 512, (1 << 20) + 512}, Row{3 << 20, 3 << 20}, Row{4 << 20, 4 << 20},
                           Row{1000, 1049000}, Row{700000, 1400000}})
    {
        VolumeFileSystem volume(Ventra::FileSystem::System(), Ventra::FileSystemType::kLocal, row.bufferSize);
        On scope(*this, volume);
        writer = QT::CreateReelmill();
        ASSERT_EQ(Create(), 0) << row.bufferSize;
        ASSERT_EQ(Add(NewTrack(), "media"), 0);
        ASSERT_EQ(writer->Close(), 0);
        const std::vector<Atom> atoms = ListAtoms(Movie());
        ASSERT_EQ(atoms.size(), 5u) << row.bufferSize;
        EXPECT_EQ(atoms[3], (Atom{"wide", row.mediaOffset - 16, 8, 8})) << row.bufferSize;
        EXPECT_EQ(atoms[4], (Atom{"mdat", row.mediaOffset - 8, 13, 8})) << row.bufferSize;
        EXPECT_EQ(Big32(MovieAtom("moov/trak/mdia/minf/stbl/stco"), 16), row.mediaOffset) << row.bufferSize;
    }
}

TEST_F(WriterLayout, UnusableDiskBufferIsRefused)
{
    for (const unsigned int bufferSize : {0u, 0xFFF00001u, 0xFFFFFFFFu})
    {
        VolumeFileSystem volume(Ventra::FileSystem::System(), Ventra::FileSystemType::kLocal, bufferSize);
        RecordingFileSystem files(volume);
        On scope(*this, files);
        writer = QT::CreateReelmill();
        EXPECT_EQ(Create(), QT::kQTErrBadArgument) << bufferSize;
        EXPECT_TRUE(files.Writes().empty());
        writer.reset();
        EXPECT_EQ(files.OpenHandles(), 0u);
    }
}

TEST_F(WriterLayout, CloseFillsTheHead)
{
    RecordingFileSystem files(Ventra::FileSystem::Current());
    On scope(*this, files);
    ASSERT_EQ(Create(), 0);
    ASSERT_EQ(Add(NewTrack(), std::string(100, 'm')), 0);
    const BinaryDataArray head = Movie();
    files.Forget();
    ASSERT_EQ(writer->Close(), 0);
    const BinaryDataArray movie = Movie();
    const std::int64_t moovSize = Big32(movie, 32);
    EXPECT_EQ(ListAtoms(movie), (std::vector<Atom>{{"ftyp", 0, 32, 8},
                                                   {"moov", 32, moovSize, 8},
                                                   {"skip", 32 + moovSize, kPlaceholderSize - moovSize, 8},
                                                   {"wide", kWideOffset, 8, 8},
                                                   {"mdat", kWideOffset + 8, 108, 8}}));
    EXPECT_EQ(files.Writes(), (std::vector<WriteCall>{
                                  {false, kMediaOffset, 100},
                                  {false, kWideOffset + 8, 4},
                                  {false, 32, static_cast<std::size_t>(moovSize)},
                                  {false, 32 + moovSize, 4},
                                  {false, 36 + moovSize, 4},
                                  {false, 40 + moovSize, static_cast<std::size_t>(kPlaceholderSize - moovSize - 8)}}));
    EXPECT_TRUE(
        std::equal(head.begin() + 32 + moovSize + 8, head.begin() + kWideOffset + 8, movie.begin() + 32 + moovSize + 8))
        << "the rest of the head stays";
    EXPECT_EQ(files.OpenHandles(), 0u);
}

TEST_F(WriterLayout, MovieAtomGoesInFrontWhileAnAtomFitsBehindIt)
{
    // A movie of a header and one item of user data: 8 + 108 + 8 + 8 bytes and the item's.
    for (const std::int64_t moovSize :
         {kPlaceholderSize - 9, kPlaceholderSize - 8, kPlaceholderSize - 7, kPlaceholderSize})
    {
        writer = QT::CreateReelmill();
        ASSERT_EQ(Create(), 0);
        std::string item(static_cast<std::size_t>(moovSize - 132), 'u');
        ASSERT_EQ(writer->AddUserData(Code("name"), item.data(), static_cast<int>(item.size())), 0);
        ASSERT_EQ(writer->Close(), 0);
        const BinaryDataArray movie = Movie();
        const std::vector<Atom> atoms = ListAtoms(movie);
        const bool fits = moovSize + 8 <= kPlaceholderSize;
        EXPECT_EQ(atoms, fits ? (std::vector<Atom>{{"ftyp", 0, 32, 8},
                                                   {"moov", 32, moovSize, 8},
                                                   {"skip", 32 + moovSize, kPlaceholderSize - moovSize, 8},
                                                   {"wide", kWideOffset, 8, 8},
                                                   {"mdat", kWideOffset + 8, 8, 8}})
                              : (std::vector<Atom>{{"ftyp", 0, 32, 8},
                                                   {"skip", 32, kPlaceholderSize, 8},
                                                   {"wide", kWideOffset, 8, 8},
                                                   {"mdat", kWideOffset + 8, 8, 8},
                                                   {"moov", kMediaOffset, moovSize, 8}}));
        if (!fits)
        {
            EXPECT_EQ(std::count(movie.begin() + 40, movie.begin() + kWideOffset, 0), kPlaceholderSize - 8);
        }
    }
}

TEST_F(WriterLayout, BlockSizeLeavesNoTraceInTheFile)
{
    std::mt19937 random(1904);
    std::vector<std::string> samples;
    std::string media;
    for (int i = 0; i < 300; ++i)
    {
        samples.emplace_back(random() % (i % 50 == 0 ? 20000 : 1000), static_cast<char>('a' + i % 26));
        media += samples.back();
    }
    BinaryDataArray first;
    for (const char* kiloBytes : {"0", "1", "4", "64"})
    {
        VolumeFileSystem volume(Ventra::FileSystem::System(), Ventra::FileSystemType::kNFS, 4096);
        RecordingFileSystem files(volume);
        On scope(*this, files);
        SettingScope setting("Reelmill.NFSWriteSizeInKBytes", kiloBytes);
        writer = QT::CreateReelmill();
        ASSERT_EQ(Create(), 0);
        const QT::TrackID tracks[] = {NewTrack(), NewTrack()};
        for (std::size_t i = 0; i < samples.size(); ++i)
        {
            ASSERT_EQ(Add(tracks[i % 2], samples[i]), 0);
        }
        ASSERT_EQ(writer->Close(), 0);
        EXPECT_EQ(files.OpenHandles(), 0u);
        const auto blocks = std::count_if(files.Writes().begin(), files.Writes().end(),
                                          [](const auto& call) { return call.unbuffered; });
        const std::size_t size = std::stoul(kiloBytes) * 1024;
        EXPECT_EQ(blocks, size == 0 ? 0 : media.size() / size) << kiloBytes;
        if (first.empty())
        {
            first = TimelessMovie();
        }
        EXPECT_SAME_BYTES(TimelessMovie(), first) << kiloBytes;
    }
    EXPECT_EQ(std::string(first.begin() + kMediaOffset, first.end()), media);
}

// ---- Beyond 4 GiB ---------------------------------------------------------------------------------------------------

class LargeMovie : public MovieTest
{
protected:
    static constexpr std::int64_t kLargest32 = 4294967287; //!< Media bytes of the largest 'mdat' of a 32-bit size.

    //! Adds samples of one byte value, and one of 8 other bytes behind them.
    void AddMedia(QT::TrackID inTrack, std::int64_t inSize)
    {
        std::vector<char> zeros(std::size_t{64} << 20);
        for (inSize -= 8; inSize > 0;)
        {
            const auto size = static_cast<int>(std::min(inSize, static_cast<std::int64_t>(zeros.size())));
            ASSERT_EQ(writer->AddMediaSample(inTrack, zeros.data(), size, 1, 1, 0, false), 0);
            inSize -= size;
        }
        ASSERT_EQ(Add(inTrack, "the tail"), 0);
    }

    BinaryDataArray Read(std::int64_t inOffset, std::size_t inLength) const
    {
        return sparse.Read(path, inOffset, inLength);
    }

    std::vector<Atom> Atoms() const
    {
        return ListAtoms([this](std::int64_t inOffset, std::size_t inLength) { return Read(inOffset, inLength); }, 0,
                         sparse.Size(path));
    }

    SparseFileSystem sparse;
    On scope{*this, sparse};
};

TEST_F(LargeMovie, KeepsThe32BitSizeAsLongAsItFits)
{
    ASSERT_EQ(Create(), 0);
    AddMedia(NewTrack(), kLargest32);
    ASSERT_EQ(writer->Close(), 0);
    const std::vector<Atom> atoms = Atoms();
    ASSERT_EQ(atoms.size(), 5u);
    const std::int64_t moovSize = atoms[1].size;
    EXPECT_EQ(atoms, (std::vector<Atom>{{"ftyp", 0, 32, 8},
                                        {"moov", 32, moovSize, 8},
                                        {"skip", 32 + moovSize, kPlaceholderSize - moovSize, 8},
                                        {"wide", kWideOffset, 8, 8},
                                        {"mdat", kWideOffset + 8, 0xFFFFFFFF, 8}}));
    EXPECT_BYTES(Read(kWideOffset, 16), "00 00 00 08 'wide' FF FF FF FF 'mdat'");
    EXPECT_BYTES(Read(kMediaOffset + kLargest32 - 9, 9), "00 'the tail'");
    const BinaryDataArray moov = Read(32, static_cast<std::size_t>(moovSize));
    const BinaryDataArray offsets = FindAtom(moov, "moov/trak/mdia/minf/stbl/co64");
    EXPECT_EQ(Big64(offsets, 16), static_cast<std::uint64_t>(kMediaOffset));
    EXPECT_EQ(Big64(offsets, offsets.size() - 8), static_cast<std::uint64_t>(kMediaOffset + kLargest32 - 8));
}

TEST_F(LargeMovie, SwitchesTo64BitsWithOneByteMore)
{
    ASSERT_EQ(Create(), 0);
    const QT::TrackID early = NewTrack();
    ASSERT_EQ(Add(early, "x"), 0);
    AddMedia(NewTrack(), kLargest32);
    std::string item(2 << 20, 'u'); // Too much for the placeholder.
    ASSERT_EQ(writer->AddUserData(Code("name"), item.data(), static_cast<int>(item.size())), 0);
    ASSERT_EQ(writer->Close(), 0);
    const std::vector<Atom> atoms = Atoms();
    ASSERT_EQ(atoms.size(), 4u);
    const std::int64_t moovSize = atoms[3].size;
    EXPECT_EQ(atoms, (std::vector<Atom>{{"ftyp", 0, 32, 8},
                                        {"skip", 32, kPlaceholderSize, 8},
                                        {"mdat", kWideOffset, kLargest32 + 1 + 16, 16},
                                        {"moov", kMediaOffset + kLargest32 + 1, moovSize, 8}}));
    EXPECT_BYTES(Read(kWideOffset, 17), "00 00 00 01 'mdat' 00 00 00 01 00 00 00 08 'x'");
    EXPECT_BYTES(Read(kMediaOffset + kLargest32 + 1 - 9, 9), "00 'the tail'");
    const BinaryDataArray moov = Read(atoms[3].offset, static_cast<std::size_t>(moovSize));
    EXPECT_NO_THROW(FindAtom(moov, "moov/trak[0]/mdia/minf/stbl/stco")) << "each track has the table that it needs";
    EXPECT_NO_THROW(FindAtom(moov, "moov/trak[1]/mdia/minf/stbl/co64"));
}

} // namespace
