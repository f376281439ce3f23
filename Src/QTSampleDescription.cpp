#include "QTAtomHelpers.h"

#include <Reelmill/QTSampleDescription.h>

#include <boost/make_shared.hpp>

namespace QT
{

QTSampleDescription::~QTSampleDescription() = default;
QTImageDescription::~QTImageDescription() = default;
QTSoundDescription::~QTSoundDescription() = default;
QTTextDescription::~QTTextDescription() = default;
QTTimecodeDescription::~QTTimecodeDescription() = default;
QTClosedCaptionDescription::~QTClosedCaptionDescription() = default;

class PrivateQTTextDescription final : public QTTextDescription
{
public:
    void GetAsBinary(Tolbin::utility::BinaryDataArray& outEntry) override
    {
        ReplaceWithRecord(outEntry, qtn_TextDescription{});
    }
};

class PrivateQTTimecodeDescription final : public QTTimecodeDescription
{
public:
    void GetAsBinary(Tolbin::utility::BinaryDataArray& outEntry) override
    {
        qtn_TimecodeDescription entry;
        entry.flags = mDropFrame ? 1 : 0;
        entry.timeScale = mTimeScale;
        entry.frameDuration = mFrameDuration;
        entry.numberOfFrames = Low8(Bits32(mNumberOfFrames));
        ReplaceWithRecord(outEntry, entry);
    }

    void Init(int inTimeScale, int inFrameDuration, int inNumberOfFrames, bool inDropFrame) override
    {
        mTimeScale = inTimeScale;
        mFrameDuration = inFrameDuration;
        mNumberOfFrames = inNumberOfFrames;
        mDropFrame = inDropFrame;
    }

private:
    std::int32_t mTimeScale = 0;      //!< Units per second.
    std::int32_t mFrameDuration = 0;  //!< In those units.
    std::int32_t mNumberOfFrames = 0; //!< Per second, as the timecode counts.
    bool mDropFrame = false;
};

class PrivateQTClosedCaptionDescription final : public QTClosedCaptionDescription
{
public:
    void GetAsBinary(Tolbin::utility::BinaryDataArray& outEntry) override
    {
        ReplaceWithRecord(outEntry, qtn_SampleDescriptionHeader{{sizeof(qtn_SampleDescriptionHeader), FourCC("c608")}});
    }
};

boost::shared_ptr<QTTextDescription> CreateTextDescription()
{
    return boost::make_shared<PrivateQTTextDescription>();
}

boost::shared_ptr<QTTimecodeDescription> CreateTimecodeDescription(int inTimeScale, int inFrameDuration,
                                                                   int inNumberOfFrames, bool inDropFrame)
{
    const auto description = boost::make_shared<PrivateQTTimecodeDescription>();
    description->Init(inTimeScale, inFrameDuration, inNumberOfFrames, inDropFrame);
    return description;
}

boost::shared_ptr<QTClosedCaptionDescription> CreateClosedCaptionDescription()
{
    return boost::make_shared<PrivateQTClosedCaptionDescription>();
}

} // namespace QT
