// libquicktime's way of storing what is already encoded.

#include "Contestant.h"

extern "C" {
#include <lqt.h>
#include <lqt_version.h>
#include <quicktime.h>
}

#include <map>
#include <stdexcept>
#include <utility>

namespace
{

//! A codec of the registry. It encodes nothing here, but the library makes no track without.
class Codec
{
public:
    Codec(lqt_codec_info_t** (*inFind)(char* inFourCC, int inEncodes), std::string inFourCC)
        : mFound(inFind(inFourCC.data(), 1))
    {
        if (mFound == nullptr)
        {
            throw std::runtime_error("libquicktime has no codec " + inFourCC);
        }
    }
    ~Codec() { lqt_destroy_codec_info(mFound); }
    Codec(const Codec&) = delete;
    Codec& operator=(const Codec&) = delete;

    lqt_codec_info_t* Get() const { return *mFound; }

private:
    lqt_codec_info_t** mFound;
};

class Libquicktime final : public Bench::Contestant
{
public:
    ~Libquicktime() override
    {
        if (mFile != nullptr)
        {
            quicktime_close(mFile);
        }
    }

    void Create(const Bench::Load& inLoad, const std::string& inPath) override
    {
        mFile = lqt_open_write(inPath.c_str(), LQT_FILE_QT);
        if (mFile == nullptr)
        {
            throw std::runtime_error("lqt_open_write failed on " + inPath);
        }
        std::map<Bench::TrackKind, int> counts;
        for (const Bench::Track& track : inLoad.Tracks())
        {
            const int failed =
                track.kind == Bench::TrackKind::Sound
                    ? lqt_add_audio_track(mFile, 2, Bench::kSoundRate, 16, mSoundCodec.Get())
                    : lqt_add_video_track(mFile, Bench::kWidth, Bench::kHeight, 1, track.timeScale, mVideoCodec.Get());
            if (failed != 0)
            {
                throw std::runtime_error("libquicktime failed to add a track");
            }
            mTracks.push_back(counts[track.kind]++);
        }
    }

    void Write(const Bench::Load& inLoad) override
    {
        const std::vector<Bench::Track>& tracks = inLoad.Tracks();
        inLoad.ForEach([&](const Bench::Piece& inPiece, unsigned char* inData) {
            const int track = mTracks[inPiece.track];
            const int failed = tracks[inPiece.track].kind == Bench::TrackKind::Sound
                                   ? quicktime_write_audio(mFile, inData, inPiece.sampleCount, track)
                                   : quicktime_write_frame(mFile, inData, inPiece.size, track);
            if (failed != 0)
            {
                throw std::runtime_error("libquicktime failed to write");
            }
        });
    }

    void Close() override
    {
        if (quicktime_close(std::exchange(mFile, nullptr)) != 0)
        {
            throw std::runtime_error("quicktime_close failed");
        }
    }

    std::string Version() const override { return "libquicktime " LQT_VERSION; }

private:
    quicktime_t* mFile = nullptr;
    Codec mVideoCodec{lqt_find_video_codec, "jpeg"}; // It has none for ProRes, and leaves the frames alone.
    Codec mSoundCodec{lqt_find_audio_codec, "sowt"};
    std::vector<int> mTracks; //!< Numbers among those of their kind.
};

} // namespace

int main(int argc, char** argv)
{
    return Bench::Run(argc, argv, {{"libquicktime", [] { return std::make_unique<Libquicktime>(); }}});
}
