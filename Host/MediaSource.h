#pragma once

#include "Completeness.h"
#include "LibAV.h"

#include <memory>
#include <string>
#include <vector>

namespace Host
{

class ImageSequence;

//! One input: a file, or an image sequence named by a pattern, opened with libavformat. Of its streams the first video
//! and all audio are taken; attached pictures are no video.
class MediaSource
{
public:
    //! Opens the input and reads as much of it as libavformat needs to tell its streams apart.
    //!
    //! \param inFrameRate  rate of an image sequence, which needs one; not looked at otherwise
    //! \param inAudioOnly  takes no video; whether there is any audio is for the caller to check
    //! \param inAllowsDamage  takes an input that breaks off for one that ends there, and damaged packets as they are
    //!
    //! Throws CommandError: `kIOFailed` when it cannot be opened or read, `kInputRefused` when it holds no media that
    //! libavformat knows, neither video nor audio, an image sequence with a gap, without a frame rate or with images
    //! that are empty, cut off or not alike.
    MediaSource(const std::string& inPath, AVRational inFrameRate, bool inAudioOnly, bool inAllowsDamage);
    ~MediaSource();

    //! As the user gave it.
    const std::string& GetPath() const { return mPath; }

    AVFormatContext& GetFormat() const { return *mFormat; }

    //! The streams that are taken, in the order of the input.
    const std::vector<AVStream*>& GetStreams() const { return mStreams; }

    //! What is not taken over, one sentence each.
    const std::vector<std::string>& GetNotes() const { return mNotes; }

    //! Length in seconds as the input states it; 0 when it does not.
    double GetExpectedSeconds() const;

    //! Length in seconds that the media will not pass, going by what the input states or its size; 0 when nothing is
    //! known.
    double GetMaximumSeconds() const;

    //! The next whole packet of one of `GetStreams`, unchanged; null at the end. Of PCM that is cut short the whole
    //! sample frames count as a packet. Throws EarlyEnd when reading fails, an image is missing, and when the input
    //! breaks off or a packet is damaged; where that is allowed a note tells what is missing. Throws CommandError when an
    //! image has changed since it was checked.
    PacketPtr ReadPacket();

    //! Reads the packet that `ReadPacket` gives first. Throws the same.
    void ReadAhead() { mAhead = ReadPacket(); }

    //! Whether `inPath` names an image sequence: a file name with a number pattern such as %04d, of which there is no
    //! file of exactly that name, or a single picture.
    static bool IsImageSequence(const std::string& inPath);

    //! The files that an input consists of. Throws CommandError when the folder of a sequence cannot be read.
    static std::vector<std::string> FilesOf(const std::string& inPath);

private:
    struct FormatCloser
    {
        void operator()(AVFormatContext* inFormat) const { avformat_close_input(&inFormat); }
    };

    void CheckImages();
    void SelectStreams(bool inAudioOnly);
    bool IsSelected(const AVPacket& inPacket) const;
    Completeness::Verdict Judge(AVPacket& ioPacket);
    void CheckCompleteness();
    [[noreturn]] void FailRead(const std::string& inReason) const;
    [[noreturn]] void BreakOff(const std::string& inReason) const;

    std::string mPath;
    std::unique_ptr<ImageSequence> mImages; //!< Null for other inputs.
    std::unique_ptr<AVFormatContext, FormatCloser> mFormat;
    std::unique_ptr<Completeness> mCompleteness; //!< none for images, which are counted by their files
    bool mAllowsDamage;
    PacketPtr mAhead;
    std::vector<AVStream*> mStreams;
    std::vector<std::string> mNotes;
};

//! Names a stream in a sentence: `stream 1 (audio, pcm_s16le) of "a.mov"`.
std::string DescribeStream(const MediaSource& inSource, const AVStream& inStream);

//! Ends the command because an option, named as the user wrote it, does not fit the stream: "... does not fit stream
//! ...: ", the reason and, behind a semicolon, what to do.
[[noreturn]] void RefuseOption(const std::string& inOption, const MediaSource& inSource, const AVStream& inStream,
                               const std::string& inReason, const std::string& inRemedy);

//! Ends the command because a movie cannot hold the stream: "stream ... cannot be wrapped: ", the reason and, behind a
//! semicolon, what to do.
[[noreturn]] void RefuseStream(const MediaSource& inSource, const AVStream& inStream, const std::string& inReason,
                               const std::string& inRemedy);

} // namespace Host
