// Every operation of whole scenarios is made to fail in every way. What a call says then, what it does to the files,
// and what can be recovered from them is held against what the public headers promise.

#include "Support/Bytes.h"
#include "Support/FaultFileSystem.h"
#include "Support/ReportCapture.h"
#include "Support/SettingScope.h"
#include "Support/SparseFileSystem.h"
#include "Support/TempDirectory.h"
#include "Support/VolumeFileSystem.h"

#include "JournalWriter.h"
#include "QTAtomRecords.h"
#include "QTDiskTypes.h"

#include <Reelmill/Recovery.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <iostream>
#include <limits>
#include <map>
#include <optional>
#include <span>

using QT::kQTErrBadState;
using QT::RecoveryOptions;
using QT::RecoveryReport;
using Tolbin::Result;
using Tolbin::utility::BinaryDataArray;
using Call = FaultFileSystem::Call;
using Calls = std::vector<Call>;

namespace
{

//! The files are in memory; one of this name, which gives movies one time of creation, is not.
const Tolbin::UTF16String& MoviePath()
{
    static const TempDirectory sDirectory;
    static const Tolbin::UTF16String sPath = [] {
        WriteFile(sDirectory.Path("movie.mov"), "");
        return sDirectory.Path16("movie.mov");
    }();
    return sPath;
}

Tolbin::UTF16String JournalPath()
{
    return MoviePath() + u".journal";
}

constexpr std::int64_t kMediaOffset = 1 << 20;
constexpr std::int64_t kWideOffset = kMediaOffset - 16;

int sFaultPoints = 0;

class CountOfFaults final : public testing::Environment
{
public:
    void TearDown() override
    {
        if (sFaultPoints > 0)
        {
            std::cout << "Fault points tried: " << sFaultPoints << std::endl;
        }
    }
};

const auto* const sCountOfFaults = testing::AddGlobalTestEnvironment(new CountOfFaults);

// ---- The host -------------------------------------------------------------------------------------------------------

//! One call of the host.
struct Step
{
    enum Kind
    {
        Create,
        Track,
        Sample,
        EndChunk,
        Other,
        Close
    };

    Kind kind;
    std::int64_t size; //!< Of a sample.
    std::function<Result(QT::Reelmill&)> call;
};

using Script = std::vector<Step>;

int Code(const char (&inText)[5])
{
    return static_cast<int>(QT::FourCC(inText));
}

Step Sample(QT::TrackID inTrack, int inSize)
{
    static char sByte = 0;
    const std::string data(static_cast<std::size_t>(inSize),
                           static_cast<char>(sByte = static_cast<char>(sByte % 100 + 1)));
    return {Step::Sample, inSize, [=](QT::Reelmill& ioWriter) {
                return ioWriter.AddMediaSample(inTrack, const_cast<char*>(data.data()), inSize, 1,
                                               inTrack == 256 ? 1 : 30, 0, false);
            }};
}

Step Text(const Tolbin::UTF16String& inText)
{
    return {Step::Sample, static_cast<std::int64_t>(2 * inText.size() + 16),
            [=](QT::Reelmill& ioWriter) { return ioWriter.AddTextMediaSample(258, inText, 5); }};
}

Step EndChunk(QT::TrackID inTrack)
{
    return {Step::EndChunk, 0, [=](QT::Reelmill& ioWriter) { return ioWriter.EndMediaChunk(inTrack); }};
}

Step Track(QT::MediaType inType, int inTimeScale,
           const std::function<boost::shared_ptr<QT::QTSampleDescription>()>& inMake)
{
    return {Step::Track, 0, [=](QT::Reelmill& ioWriter) {
                QT::TrackID track = 0;
                const Result result = ioWriter.NewMovieTrack(inType, inTimeScale, 64, 48, inMake(), track);
                EXPECT_EQ(result < 0, track == 0) << "a track that was not added has no ID";
                return result;
            }};
}

Step Other(const std::function<Result(QT::Reelmill&)>& inCall)
{
    return {Step::Other, 0, inCall};
}

//! Picture, sound and text in blocks of 4096 bytes: samples that end with a block, that fill several, and a tail. The
//! text ends with the picture, so that recovery has no need to cut it.
Script MakeScript(int inUserDataSize)
{
    const auto makeVideo = [] {
        Tolbin::UTF16String name = u"Test";
        return QT::CreateImageDescription(Code("apcn"), name, 720, 486, 24, Quorlan::kFieldTypeProgressive, {10, 11});
    };
    const auto makeSound = [] {
        return QT::CreateSoundDescription(0, 2, 48000, Sambrel::kAudioSampleTypeInt16LE,
                                          {Quorlan::kAudioChannelLabelLeft, Quorlan::kAudioChannelLabelRight}, false);
    };
    const std::string item(static_cast<std::size_t>(inUserDataSize), 'u');
    return {{Step::Create, 0, [](QT::Reelmill& ioWriter) { return ioWriter.Create(MoviePath(), 600); }},
            Track(QT::kQTMediaTypeVideo, 25, makeVideo),
            Track(QT::kQTMediaTypeSound, 48000, makeSound),
            Other([=](QT::Reelmill& ioWriter) {
                return ioWriter.AddUserData(Code("name"), const_cast<char*>(item.data()), inUserDataSize);
            }),
            Sample(256, 1500),
            EndChunk(256),
            Sample(257, 700),
            Track(QT::kQTMediaTypeText, 600, [] { return QT::CreateTextDescription(); }),
            Other([](QT::Reelmill& ioWriter) {
                return ioWriter.AddTrackReference(256, 258, QT::kQTTrackReferenceChapter);
            }),
            Text(u"One"),
            Sample(256, 1874), // The first block is full.
            EndChunk(256),
            Other([](QT::Reelmill& ioWriter) { return ioWriter.SetTrackTrimIn(257, 4800); }),
            Sample(257, 700),
            Sample(256, 9000), // Two blocks.
            EndChunk(256),
            Text(u"Second"),
            Other([](QT::Reelmill& ioWriter) {
                char title[] = "sound";
                return ioWriter.AddTrackUserData(257, Code("name"), title, 5);
            }),
            Sample(257, 0),
            Sample(256, 3000), // The fourth block.
            Text(u"Last"),
            Sample(257, 700),
            {Step::Close, 0, [](QT::Reelmill& ioWriter) { return ioWriter.Close(); }}};
}

//! What came of the script.
struct Take
{
    std::vector<Result> results; //!< Of the steps that were made.
    Calls calls;
};

enum class Ending
{
    AfterAll,
    AtFailure, //!< The host gives up with the first call that fails, as it always does when a track fails twice.
    BeforeClose
};

//! The writer is gone afterwards.
Take Play(SparseFileSystem& ioFiles, const Script& inScript, boost::shared_ptr<QT::Reelmill> inWriter,
          const Fault& inFault = {}, Ending inEnding = Ending::AfterAll)
{
    Take run;
    VolumeFileSystem volume(ioFiles, Ventra::FileSystemType::kNFS, 4096);
    FaultFileSystem faulty(volume, inFault);
    const Ventra::FileSystemScope scope(faulty);
    for (const Step& step : inScript)
    {
        if (inEnding == Ending::BeforeClose && step.kind == Step::Close)
        {
            break;
        }
        faulty.SetStep(static_cast<int>(run.results.size()));
        run.results.push_back(step.call(*inWriter));
        const bool isFailed = run.results.back() < 0;
        if (isFailed && (inEnding == Ending::AtFailure || (step.kind == Step::Track && step.call(*inWriter) < 0)))
        {
            break;
        }
    }
    const bool isOver = run.results.front() < 0 || run.results.size() == inScript.size();
    EXPECT_EQ(isOver ? ioFiles.OpenHandles() : 0, 0u) << "files are left open";
    const std::size_t calls = faulty.Calls().size();
    inWriter.reset();
    EXPECT_EQ(ioFiles.OpenHandles(), 0u);
    const auto isNoClose = [](const Call& inCall) { return inCall.operation != FileOperation::Close; };
    EXPECT_TRUE(
        std::none_of(faulty.Calls().begin() + static_cast<std::ptrdiff_t>(calls), faulty.Calls().end(), isNoClose));
    run.calls = faulty.Calls();
    return run;
}

bool Changes(const Call& inCall)
{
    return inCall.operation == FileOperation::Write || inCall.operation == FileOperation::SetSize ||
           inCall.operation == FileOperation::Remove;
}

BinaryDataArray MovieIn(const SparseFileSystem& inFiles)
{
    return inFiles.Read(MoviePath(), 0, static_cast<std::size_t>(inFiles.Size(MoviePath())));
}

void ExpectMovie(const SparseFileSystem& inFiles, const SparseFileSystem::Files& inExpected)
{
    SparseFileSystem expected;
    expected.Restore(inExpected);
    if (inFiles.Holds(MoviePath(), inExpected))
    {
        return;
    }
    if (std::max(inFiles.Size(MoviePath()), expected.Size(MoviePath())) < 4 * kMediaOffset)
    {
        EXPECT_SAME_BYTES(MovieIn(inFiles), MovieIn(expected));
    }
    ADD_FAILURE() << "not the movie that was expected";
}

// ---- The faults -----------------------------------------------------------------------------------------------------

//! Lets every fault strike at every operation of a run that went well; from a later step on, every third.
void ForEveryFault(const Calls& inClean, int inFirstStep, const std::function<void(const Fault&)>& inTry)
{
    std::vector<Fault> faults;
    for (const int error : {EIO, ENOSPC, EINTR})
    {
        for (const bool isForGood : {false, true})
        {
            faults.push_back({0, Fault::Error, error, isForGood});
        }
    }
    const std::size_t anyCount = faults.size();
    for (const Fault::Kind kind : {Fault::Half, Fault::Nothing})
    {
        faults.push_back({0, kind, EIO, false});
        faults.push_back({0, kind, EIO, true});
    }
    faults.push_back({0, Fault::Full, EIO, true});
    for (std::size_t i = 0; i < inClean.size(); ++i)
    {
        const bool isWrite = inClean[i].operation == FileOperation::Write;
        const std::size_t count = inClean[i].step < inFirstStep ? 0 : isWrite ? faults.size() : anyCount;
        for (std::size_t j = 0; j < count; j += inFirstStep == 0 ? 1 : 3)
        {
            Fault fault = faults[j];
            fault.number = static_cast<int>(i) + 1;
            ++sFaultPoints;
            SCOPED_TRACE("fault " + std::to_string(j) + " at operation " + std::to_string(fault.number) +
                         ", which is " + std::to_string(static_cast<int>(inClean[i].operation)) + " at " +
                         std::to_string(inClean[i].offset) + (inClean[i].isJournal ? " of the journal" : "") +
                         " in step " + std::to_string(inClean[i].step));
            inTry(fault);
            if (testing::Test::HasFailure())
            {
                return;
            }
        }
    }
}

//! Whether the call that makes an operation tells of its failure.
using Tells = std::function<bool(const Calls&, std::size_t)>;

//! Whether a fault makes the operation with this index fail.
bool Hits(const Fault& inFault, const Calls& inClean, std::size_t inIndex)
{
    const int behind = static_cast<int>(inIndex) + 1 - inFault.number;
    return inFault.GetResult() < 0 && (inFault.isForGood ? behind >= 0 : behind == 0) &&
           (inFault.kind == Fault::Error || inClean[inIndex].operation == FileOperation::Write);
}

//! The first operation whose failure is told, if any is.
std::optional<std::size_t> FindTold(const Fault& inFault, const Calls& inClean, const Tells& inTells)
{
    for (std::size_t i = 0; i < inClean.size(); ++i)
    {
        if (Hits(inFault, inClean, i) && inTells(inClean, i))
        {
            return i;
        }
    }
    return std::nullopt;
}

//! What was done behind the operation that failed, by its place in the run that went well.
std::span<const Call> CallsBehind(const Calls& inCalls, std::size_t inTold, const Fault& inFault)
{
    return std::span(inCalls).subspan(inTold + (inFault.kind == Fault::Full ? 2 : 1)); // The first half came before.
}

bool RecoveryTells(const Calls& inClean, std::size_t inIndex)
{
    return inClean[inIndex].operation != FileOperation::Close;
}

bool JournaledWriterTells(const Calls& inClean, std::size_t inIndex)
{
    const Call& call = inClean[inIndex];
    const bool isAtStart = call.operation == FileOperation::Seek && call.step == 0 && call.offset == 0; // It is there.
    return RecoveryTells(inClean, inIndex) && call.operation != FileOperation::BufferSize && !isAtStart;
}

//! The last media and what is left of the placeholder are not part of the result of `Close`.
bool PlainWriterTells(const Calls& inClean, std::size_t inIndex)
{
    const Call& call = inClean[inIndex];
    const bool isInClose = call.step == inClean.back().step;
    if (call.operation == FileOperation::Seek && isInClose)
    {
        return PlainWriterTells(inClean, inIndex + 1); // What is not reached is not written.
    }
    const bool isLast =
        std::none_of(inClean.begin() + static_cast<std::ptrdiff_t>(inIndex) + 1, inClean.end(), Changes);
    const bool isTail = isInClose && call.offset >= kMediaOffset && !isLast;
    const bool isPlaceholder = isInClose && call.offset > 32 && call.offset < kWideOffset;
    return JournaledWriterTells(inClean, inIndex) && !isTail && !isPlaceholder;
}

// ---- The oracles ----------------------------------------------------------------------------------------------------

class Recovering
{
protected:
    Recovering()
    {
        keeping.keepJournal = true;
        dry.dryRun = true;
        dropping.dropsForSpace = true;
    }

    //! Recovers the movie in the files with every fault, then without: once as it is, and once as a recovery before has
    //! left it. There must be too little media to make room by dropping any.
    void TryRecovery(const RecoveryOptions& inOptions)
    {
        const SparseFileSystem::Files abandoned = files.Save();
        Calls calls;
        ASSERT_EQ(Recover({}, keeping, calls), 0);
        const SparseFileSystem::Files finished = files.Save();
        const bool isKept = inOptions.dryRun || inOptions.keepJournal;
        for (const SparseFileSystem::Files* const found : {&abandoned, &finished})
        {
            SCOPED_TRACE(testing::Message()
                         << "dry " << inOptions.dryRun << ", keeping " << inOptions.keepJournal << ", dropping "
                         << inOptions.dropsForSpace << ", again " << (found == &finished));
            files.Restore(*found);
            Calls clean;
            ASSERT_EQ(Recover({}, inOptions, clean), 0);
            ASSERT_EQ(files.Exists(JournalPath()), isKept);
            ASSERT_TRUE(!inOptions.dryRun || std::none_of(clean.begin(), clean.end(), Changes));
            ForEveryFault(clean, 0, [&](const Fault& inFault) {
                files.Restore(*found);
                const std::optional<std::size_t> told = FindTold(inFault, clean, RecoveryTells);
                EXPECT_EQ(Recover(inFault, inOptions, calls), told ? inFault.GetResult() : 0);
                if (told)
                {
                    const auto behind = CallsBehind(calls, *told, inFault);
                    EXPECT_TRUE(std::none_of(behind.begin(), behind.end(), Changes));
                }
                EXPECT_TRUE(told || inOptions.dryRun || files.Holds(MoviePath(), finished));
                EXPECT_TRUE((!told && !isKept) || Recover({}, {}, calls) == 0) << "the trouble is over";
                ::ExpectMovie(files, finished);
                EXPECT_FALSE(files.Exists(JournalPath()));
            });
        }
        files.Restore(abandoned);
        ASSERT_EQ(Recover({}, keeping, calls), 0);
    }

    Result Recover(const Fault& inFault, const RecoveryOptions& inOptions, Calls& outCalls)
    {
        FaultFileSystem faulty(files, inFault);
        const Ventra::FileSystemScope scope(faulty);
        const Result result = QT::RecoverMovie(MoviePath(), report, inOptions);
        outCalls = faulty.Calls();
        EXPECT_EQ(files.OpenHandles(), 0u);
        return result;
    }

    SparseFileSystem files;
    RecoveryReport report;
    RecoveryOptions plain;
    RecoveryOptions keeping;
    RecoveryOptions dry;
    RecoveryOptions dropping;
};

class FaultMatrixOfRecovery : public testing::Test, protected Recovering
{
protected:
    //! Makes a take that no writer could: with a placeholder of any size, samples of any number of bytes, all zeros but
    //! for two bytes at the end, and the last sample not whole.
    void Abandon(std::uint32_t inPlaceholderSize, std::int64_t inSize, int inCount)
    {
        const Ventra::FileSystemScope scope(files);
        QT::JournalWriter journal;
        ASSERT_EQ(journal.Create(JournalPath()), 0);
        journal.Add(QT::JournalMovie{600, inPlaceholderSize, 0});
        journal.AddTrack({QT::kQTMediaTypeVideo, 25, 64, 48, QT::StoreDescription(*QT::CreateTextDescription())});
        Ventra::File movie;
        unsigned int written = 0;
        ASSERT_EQ(movie.Create(MoviePath(), Ventra::FileAccessFlags::kWrite, Ventra::FileShareModeFlags::kReadWrite,
                               Ventra::FileCreateDispositionFlags::kCreateNew, Ventra::FileAttributesFlags::kNormal,
                               false),
                  0);
        const qtn_FileTypeAtom head;
        ASSERT_EQ(movie.Write(&head, sizeof(head), written), 0);
        const BinaryDataArray media = Bytes("#8 'wide' #8 'mdat'");
        ASSERT_EQ(movie.SetFilePointer(inPlaceholderSize + 32, Ventra::FilePointerMoveMethod::kBegin), 0);
        ASSERT_EQ(movie.Write(media.data(), 16, written), 0);
        std::int64_t end = inPlaceholderSize + 48;
        for (int i = 1; i <= inCount; ++i)
        {
            const bool isZero = i < inCount - 1;
            journal.AddSample(
                {0, static_cast<std::int32_t>(inSize), 1, i, static_cast<std::uint32_t>(isZero ? inSize : 0)});
            end += i < inCount ? inSize : 10;
            ASSERT_EQ(movie.SetFilePointer(end - 1, Ventra::FilePointerMoveMethod::kBegin), 0);
            ASSERT_EQ(isZero ? 0 : movie.Write("x", 1, written), 0);
        }
        ASSERT_EQ(journal.Write(), 0);
    }
};

//! The parameter is the size of an item of user data. One of 1 MiB sends 'moov' behind the media; as that takes
//! time, fewer faults strike, and while the movie is closed only.
class FaultMatrix : public testing::TestWithParam<int>, protected Recovering
{
protected:
    //! What a plain writer makes of some of the steps.
    const SparseFileSystem::Files& MovieOf(const std::vector<bool>& inIsTaken)
    {
        SparseFileSystem::Files& movie = mMovies[inIsTaken];
        if (movie.empty())
        {
            Script taken;
            for (std::size_t i = 0; i < script.size(); ++i)
            {
                if (i >= inIsTaken.size() || inIsTaken[i])
                {
                    taken.push_back(script[i]);
                }
            }
            SparseFileSystem clean;
            Play(clean, taken, QT::CreateReelmill());
            movie = clean.Save();
        }
        return movie;
    }

    //! All steps of a run that a movie with so many of the samples goes back to.
    std::vector<bool> TakenBy(const std::vector<Result>& inResults, std::uint64_t inSamples, bool inTakesFailed) const
    {
        std::vector<bool> taken(script.size() - 1);
        bool isBehindEnd = false;
        taken[0] = true;
        for (std::size_t i = 1; i < std::min(inResults.size(), taken.size()); ++i)
        {
            const Step::Kind kind = script[i].kind;
            if (kind == Step::Sample && inResults[i] >= 0)
            {
                isBehindEnd = isBehindEnd || inSamples == 0;
                taken[i] = !isBehindEnd;
                inSamples -= isBehindEnd ? 0 : 1;
            }
            else if (kind != Step::Sample)
            {
                taken[i] = (inResults[i] >= 0 || kind == Step::Track || inTakesFailed) &&
                           !(kind == Step::EndChunk && isBehindEnd);
            }
        }
        return taken;
    }

    //! The movie holds the first so many samples that were taken, and what was said of it. Behind them there may be
    //! the beginning of one that was not.
    void ExpectMovie(const std::vector<Result>& inResults, const RecoveryReport& inReport)
    {
        const std::uint64_t inSamples = inReport.samplesKept;
        if (inReport.bytesUnknown > 0)
        {
            CutUnknownMedia(inReport);
        }
        if (!files.Holds(MoviePath(), MovieOf(TakenBy(inResults, inSamples, false))))
        {
            ::ExpectMovie(files, MovieOf(TakenBy(inResults, inSamples, true)));
        }
        EXPECT_FALSE(files.Exists(JournalPath()));
    }

    void CutUnknownMedia(const RecoveryReport& inReport)
    {
        BinaryDataArray movie = MovieIn(files);
        const auto begin = movie.begin() + static_cast<std::ptrdiff_t>(kMediaOffset + inReport.bytesKept);
        movie.erase(begin, begin + static_cast<std::ptrdiff_t>(inReport.bytesUnknown));
        const BinaryDataArray size =
            BytesOf(boost::endian::big_uint32_t(static_cast<std::uint32_t>(inReport.bytesKept + 8)));
        std::copy(size.begin(), size.end(), movie.begin() + kMediaOffset - 8);
        const Ventra::FileSystemScope scope(files);
        Ventra::File file;
        unsigned int written = 0;
        ASSERT_EQ(file.Create(MoviePath(), Ventra::FileAccessFlags::kWrite, Ventra::FileShareModeFlags::kReadWrite,
                              Ventra::FileCreateDispositionFlags::kCreateAlways, Ventra::FileAttributesFlags::kNormal,
                              false),
                  0);
        ASSERT_EQ(file.Write(movie.data(), static_cast<unsigned int>(movie.size()), written), 0);
    }

    //! \param inStaysFailed  samples and `Close` fail from then on
    void ExpectResults(const Take& inRun, const Take& inClean, std::optional<std::size_t> inTold, const Fault& inFault,
                       bool inStaysFailed) const
    {
        const int step = inTold ? inClean.calls[*inTold].step : static_cast<int>(script.size());
        for (std::size_t i = 0; i < inRun.results.size(); ++i)
        {
            const int behind = static_cast<int>(i) - step;
            const Step::Kind kind = script[i].kind;
            const Result failure = behind > 0 && step == 0 ? kQTErrBadState : inFault.GetResult();
            const bool mustFail =
                behind == 0 || (behind > 0 && (step == 0 || (kind == Step::Close && inFault.isForGood) ||
                                               (kind != Step::Other && kind != Step::EndChunk && inStaysFailed)));
            const bool mayFail = mustFail || (behind > 0 && inFault.isForGood);
            EXPECT_TRUE((mayFail && inRun.results[i] == failure) || (!mustFail && inRun.results[i] == 0))
                << "step " << i << " gave " << inRun.results[i];
        }
    }

    //! Once the trouble is over all samples are found that were whole in the file.
    void ExpectRecovers(const Take& inRun)
    {
        std::uint64_t whole = 0;
        std::int64_t end = kMediaOffset;
        for (std::size_t i = 0; i < inRun.results.size(); ++i)
        {
            end += inRun.results[i] >= 0 ? script[i].size : 0;
            whole += script[i].kind == Step::Sample && inRun.results[i] >= 0 && end <= files.Size(MoviePath()) ? 1 : 0;
        }
        Calls calls;
        const Result result = Recover({}, {}, calls);
        if (result < 0)
        {
            EXPECT_EQ(whole, 0u);
            EXPECT_TRUE(result == QT::kQTErrNothingWhole || result == QT::kQTErrBadJournal ||
                        result == Tolbin::ResultFromSystemError(ENOENT))
                << result;
            return;
        }
        EXPECT_GE(report.samplesKept, whole);
        ExpectMovie(inRun.results, report);
    }

    //! The movie's media begins with what the journal says, or it is another movie.
    void ExpectRefusesOtherMedia()
    {
        const SparseFileSystem::Files found = files.Save();
        {
            const Ventra::FileSystemScope scope(files);
            Ventra::File movie;
            unsigned int written = 0;
            ASSERT_EQ(movie.Create(MoviePath(), Ventra::FileAccessFlags::kWrite, Ventra::FileShareModeFlags::kReadWrite,
                                   Ventra::FileCreateDispositionFlags::kOpenExisting,
                                   Ventra::FileAttributesFlags::kNormal, false),
                      0);
            ASSERT_EQ(movie.SetFilePointer(kMediaOffset, Ventra::FilePointerMoveMethod::kBegin), 0);
            ASSERT_EQ(movie.Write("?", 1, written), 0);
        }
        Calls calls;
        EXPECT_EQ(Recover({}, dry, calls), QT::kQTErrOtherMovie);
        files.Restore(found);
    }

    const ReportCapture reports;
    const SettingScope setting{"Reelmill.NFSWriteSizeInKBytes", "4"};
    FaultMatrix() { everything.samplesKept = script.size(); }

    const Script script = MakeScript(GetParam());
    RecoveryReport everything; //!< Says that all samples are there.
    VolumeFileSystem volume{files, Ventra::FileSystemType::kNFS, 4096};
    const int firstStep = GetParam() < kMediaOffset ? 0 : static_cast<int>(script.size()) - 1; //!< Of the faults.

private:
    std::map<std::vector<bool>, SparseFileSystem::Files> mMovies;
};

// ---- The scenarios --------------------------------------------------------------------------------------------------

TEST_P(FaultMatrix, PlainWriter)
{
    const Take clean = Play(files, script, QT::CreateReelmill());
    ASSERT_EQ(clean.results, std::vector<Result>(script.size(), 0));
    const SparseFileSystem::Files movie = files.Save();
    ForEveryFault(clean.calls, firstStep, [&](const Fault& inFault) {
        const Take run = Play(files, script, QT::CreateReelmill(), inFault);
        const std::optional<std::size_t> told = FindTold(inFault, clean.calls, PlainWriterTells);
        ExpectResults(run, clean, told, inFault, false);
        if (told)
        {
            for (const Call& call : CallsBehind(run.calls, *told, inFault))
            {
                EXPECT_FALSE(Changes(call) && call.step == clean.calls[*told].step) << "at " << call.offset;
            }
        }
        else if (!FindTold(inFault, clean.calls, JournaledWriterTells))
        {
            ::ExpectMovie(files, movie);
        }
    });
}

TEST_P(FaultMatrix, JournaledWriter)
{
    const Take clean = Play(files, script, QT::CreateJournaledReelmill());
    ASSERT_EQ(clean.results, std::vector<Result>(script.size(), 0));
    ExpectMovie(clean.results, everything);
    ForEveryFault(clean.calls, firstStep, [&](const Fault& inFault) {
        const std::optional<std::size_t> told = FindTold(inFault, clean.calls, JournaledWriterTells);
        for (const Ending ending : {Ending::AfterAll, Ending::AtFailure, Ending::BeforeClose})
        {
            if (ending != Ending::AfterAll && (!told || clean.calls[*told].step == clean.calls.back().step))
            {
                continue; // As after all, or nothing fails.
            }
            files.Restore({});
            const Take run = Play(files, script, QT::CreateJournaledReelmill(), inFault, ending);
            const bool isMedia = told && !clean.calls[*told].isJournal &&
                                 script[static_cast<std::size_t>(clean.calls[*told].step)].kind == Step::Sample;
            ExpectResults(run, clean, told, inFault, isMedia);
            if (told)
            {
                for (const Call& later : CallsBehind(run.calls, *told, inFault))
                {
                    EXPECT_FALSE(Changes(later) && !later.isJournal &&
                                 (isMedia || later.step == clean.calls[*told].step))
                        << "the movie is not left alone at " << later.offset;
                }
            }
            if (run.results.size() == script.size() && run.results.back() >= 0)
            {
                ExpectMovie(run.results, everything);
            }
            else
            {
                ExpectRecovers(run);
            }
        }
    });
}

class FaultMatrixInFront : public FaultMatrix
{
};

TEST_P(FaultMatrixInFront, Memory)
{
    if (!AllocationLimit::Works())
    {
        GTEST_SKIP() << "a memory checker has taken over operator new";
    }
    bool hasStruck = true;
    const auto tryAllocation = [&](int inNumber, Ending inEnding) {
        files.Restore({});
        Take run;
        {
            FaultFileSystem counted(volume, {});
            const Ventra::FileSystemScope scope(counted);
            auto writer = QT::CreateJournaledReelmill();
            const AllocationFault fault(inNumber);
            for (const Step& step : script)
            {
                const bool isRepeated =
                    inEnding == Ending::BeforeClose || (inEnding == Ending::AfterAll && step.kind != Step::Sample);
                Result result = Tolbin::kResultOutOfMemory;
                try
                {
                    result = step.call(*writer);
                }
                catch (const std::bad_alloc&)
                {
                    if (step.kind != Step::Create && isRepeated)
                    {
                        result = step.call(*writer);
                        EXPECT_EQ(result, 0) << "the call that found no memory changed nothing";
                    }
                }
                const AllocationFault::Pause pause;
                run.results.push_back(result);
                if ((result < 0 && (inEnding == Ending::AtFailure || step.kind != Step::Sample)) ||
                    (inEnding == Ending::BeforeClose && run.results.size() == script.size() - 1))
                {
                    break;
                }
            }
            hasStruck = AllocationFault::HasStruck();
        }
        EXPECT_EQ(files.OpenHandles(), 0u);
        EXPECT_TRUE(run.results.front() >= 0 || !files.Exists(JournalPath())) << "it would bar the next attempt";
        if (inEnding == Ending::BeforeClose && run.results.back() >= 0)
        {
            ExpectRefusesOtherMedia();
        }
        const bool isClosed = run.results.size() == script.size() && run.results.back() >= 0;
        isClosed ? ExpectMovie(run.results, everything) : ExpectRecovers(run);
    };
    for (const Ending ending : {Ending::AfterAll, Ending::AtFailure, Ending::BeforeClose})
    {
        hasStruck = true;
        for (int number = 1; hasStruck; ++number, ++sFaultPoints)
        {
            SCOPED_TRACE("allocation " + std::to_string(number));
            tryAllocation(number, ending);
            ASSERT_FALSE(HasFailure());
        }
    }
}

TEST_P(FaultMatrixInFront, Recovery)
{
    Play(files, script, QT::CreateJournaledReelmill(), {}, Ending::BeforeClose);
    TryRecovery(plain);
}

TEST_F(FaultMatrixOfRecovery, MovieAtomBehindTheMedia)
{
    Abandon(500, 100, 12);
    for (const RecoveryOptions& options : {plain, keeping, dry, dropping})
    {
        TryRecovery(options);
        EXPECT_FALSE(report.isMovieAtomInFront);
    }
}

//! The size of 'mdat' has 64 bits, and when half written looks like one of 36 GiB.
TEST_F(FaultMatrixOfRecovery, LargeMovie)
{
    constexpr std::int64_t kSize = std::numeric_limits<std::int32_t>::max();
    Abandon(10000, kSize, 22);
    TryRecovery(plain);
    EXPECT_TRUE(report.isMovieAtomInFront);
    EXPECT_EQ(Big64(files.Read(MoviePath(), 10032, 16), 8), static_cast<std::uint64_t>(21 * kSize + 16));
}

INSTANTIATE_TEST_SUITE_P(InFront, FaultMatrix, testing::Values(10));
INSTANTIATE_TEST_SUITE_P(Behind, FaultMatrix, testing::Values(kMediaOffset));
INSTANTIATE_TEST_SUITE_P(All, FaultMatrixInFront, testing::Values(70000)); // More than a journal keeps room for.

} // namespace
