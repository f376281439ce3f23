// This project's writer, plain and with its journal.

#include "Contestant.h"

#include <Reelmill/Recovery.h>
#include <Reelmill/Reelmill.h>
#include <Tolbin/String.h>

#include <stdexcept>
#include <utility>

namespace
{

void Check(Tolbin::Result inResult)
{
    if (inResult < 0)
    {
        throw std::runtime_error(Tolbin::ResultMessage(inResult));
    }
}

boost::shared_ptr<QT::QTSampleDescription> MakeDescription(Bench::TrackKind inKind)
{
    if (inKind == Bench::TrackKind::Sound)
    {
        return QT::CreateSoundDescription(0, 2, Bench::kSoundRate, Sambrel::kAudioSampleTypeInt16LE,
                                          {Quorlan::kAudioChannelLabelLeft, Quorlan::kAudioChannelLabelRight}, false);
    }
    Tolbin::UTF16String name = u"ProRes 422";
    return QT::CreateImageDescription(0x6170636E /* 'apcn' */, name, Bench::kWidth, Bench::kHeight, 24,
                                      Quorlan::kFieldTypeProgressive, {1, 1});
}

class ReelmillContestant final : public Bench::Contestant
{
public:
    explicit ReelmillContestant(boost::shared_ptr<QT::Reelmill> inMovie) : mMovie(std::move(inMovie)) {}

    void Create(const Bench::Load& inLoad, const std::string& inPath) override
    {
        Check(mMovie->Create(Tolbin::string::PathToUTF16(inPath), 600));
        for (const Bench::Track& track : inLoad.Tracks())
        {
            const bool isVideo = track.kind == Bench::TrackKind::Video;
            Check(mMovie->NewMovieTrack(isVideo ? QT::kQTMediaTypeVideo : QT::kQTMediaTypeSound, track.timeScale,
                                        isVideo ? Bench::kWidth : 0, isVideo ? Bench::kHeight : 0,
                                        MakeDescription(track.kind), mTracks.emplace_back()));
        }
    }

    void Write(const Bench::Load& inLoad) override
    {
        inLoad.ForEach([this](const Bench::Piece& inPiece, unsigned char* inData) {
            const QT::TrackID track = mTracks[inPiece.track];
            Check(mMovie->AddMediaSample(track, inData, static_cast<int>(inPiece.size), inPiece.sampleCount,
                                         inPiece.sampleDuration, 0, false));
            if (inPiece.endsChunk)
            {
                Check(mMovie->EndMediaChunk(track));
            }
        });
    }

    void Close() override { Check(mMovie->Close()); }

    bool FillsCache() const override { return false; }

private:
    boost::shared_ptr<QT::Reelmill> mMovie;
    std::vector<QT::TrackID> mTracks;
};

} // namespace

int main(int argc, char** argv)
{
    return Bench::Run(
        argc, argv,
        {{"reelmill", [] { return std::make_unique<ReelmillContestant>(QT::CreateReelmill()); }},
         {"journaled", [] { return std::make_unique<ReelmillContestant>(QT::CreateJournaledReelmill()); }}});
}
