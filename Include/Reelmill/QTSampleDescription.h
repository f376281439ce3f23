#pragma once

#include <Quorlan/MediaTypes.h>
#include <Reelmill/QTTypes.h>
#include <Sambrel/AudioSampleType.h>
#include <Tolbin/BinaryDataArray.h>
#include <Tolbin/Export.h>
#include <Tolbin/UTF16String.h>

#include <boost/shared_ptr.hpp>

namespace QT
{

//! How the samples of a track are encoded: one entry of its 'stsd' atom.
//!
//! The writer shares the object with the host, never changes it, and asks for its bytes when it closes the movie; what
//! was changed before that is what reaches the file. One object may describe several tracks. Not synchronised. A host
//! may derive its own description for a format that the library does not know.
class TOLBIN_EXPORT QTSampleDescription
{
public:
    virtual ~QTSampleDescription();

    //! Replaces the content of `outEntry` with the complete entry in file byte order: its 32-bit size, its data format,
    //! its fields, its extension atoms. The same state always gives the same bytes. An entry of no bytes makes the
    //! writer's `Close` fail (`kResultFailed`), and so does an exception (`kResultOutOfMemory`, whatever it is). What it
    //! calls of a movie that asks is refused.
    virtual void GetAsBinary(Tolbin::utility::BinaryDataArray& outEntry) = 0;
};

//! A video sample description ("Video Sample Description" of the QuickTime File Format).
//!
//! Nothing is checked: width, height and depth are written as their low 16 bits, and the codec name is cut after 31
//! bytes of UTF-8. Four-character codes hold the first character in the most significant byte.
class TOLBIN_EXPORT QTImageDescription : public QTSampleDescription
{
public:
    ~QTImageDescription() override;

    //! Colour of the frames ('colr' of type 'nclc'), as indices of the format's tables. Once set it stays.
    virtual void SetColorSpaceParameter(unsigned short inPrimaries, unsigned short inTransferFunction,
                                        unsigned short inMatrix) = 0;

    //! The part of the frame to show ('clap'), in pixels: its size, and the offset of its centre from the frame's
    //! centre, each a fraction. A second call replaces the first. With a pixel aspect other than 1:1 the track also
    //! gets its aperture dimensions ('tapt').
    virtual void AddCleanAperture(unsigned int inWidthN, unsigned int inWidthD, unsigned int inHeightN,
                                  unsigned int inHeightD, int inHorizOffN, unsigned int inHorizOffD, int inVertOffN,
                                  unsigned int inVertOffD) = 0;

    //! Any value but `kQTGammaNone` writes a 'gama' atom of 2.2.
    virtual void AddGamma(GammaValue inGamma) = 0;

    //! Temporal quality, 0 (the default: no temporal compression) to 1023.
    virtual void SetTemporalQuality(unsigned int inQuality) = 0;

    //! Spatial quality, 0 to 1024 (the default: lossless).
    virtual void SetSpatialQuality(unsigned int inQuality) = 0;

    //! False, and nothing is written to the arguments, when no colour was set.
    virtual bool GetColorSpaceParameter(unsigned short& outPrimaries, unsigned short& outTransferFunction,
                                        unsigned short& outMatrix) = 0;

    //! The eight values of `AddCleanAperture`. False, and nothing is written, when no clean aperture was added.
    virtual bool GetCleanAperture(unsigned int& outWidthN, unsigned int& outWidthD, unsigned int& outHeightN,
                                  unsigned int& outHeightD, int& outHorizOffN, unsigned int& outHorizOffD,
                                  int& outVertOffN, unsigned int& outVertOffD) = 0;

    virtual Quorlan::PixelAspectRatio GetPixelAspect() = 0;

    //! Width and height in pixels as given to the factory, not cut to 16 bits.
    virtual int GetDescriptionWidth() = 0;
    virtual int GetDescriptionHeight() = 0;

    //! Appends an extension atom that a decoder needs: type `inType`, payload the `inSize` bytes at `inData`, which are
    //! copied. Extensions stand right behind the fixed entry, in the order of the calls; a type may repeat. `inSize` is
    //! 0 or more; a negative size or a null pointer with a size above 0 is reported and adds nothing.
    virtual void AddArbitraryImageDescriptionExtension(unsigned int inType, void* inData, int inSize) = 0;

    //! The data format, as given to the factory.
    virtual void SetImageDescriptionCodecFourCC(unsigned int inCodec) = 0;

    //! The vendor, 'appl' by default.
    virtual void SetVendorFourCC(unsigned int inVendor) = 0;

    //! The revision level, 0 by default.
    virtual void SetRevisionLevel(short inRevision) = 0;

    virtual void SetCodecName(Tolbin::UTF16String inName) = 0;

    //! Leaves the field atom ('fiel') out. It is written by default.
    virtual void SetShouldOmitFieldExtension(bool inOmit) = 0;

    //! Zero bytes behind the last extension, 0 by default. `Reelmill::Close` makes them in memory: more than the machine
    //! has is `kResultOutOfMemory`, and more than an atom takes `kQTErrTooLarge`.
    virtual void SetExtraPaddingAmount(unsigned long inSize) = 0;
};

//! A sound sample description for uncompressed PCM. Never changes once created.
class TOLBIN_EXPORT QTSoundDescription : public QTSampleDescription
{
public:
    ~QTSoundDescription() override;
};

//! A text sample description ('text'). Constant.
class TOLBIN_EXPORT QTTextDescription : public QTSampleDescription
{
public:
    ~QTTextDescription() override;
};

//! A timecode sample description ('tmcd').
class TOLBIN_EXPORT QTTimecodeDescription : public QTSampleDescription
{
public:
    ~QTTimecodeDescription() override;

    //! Replaces what was given to `CreateTimecodeDescription`.
    virtual void Init(int inTimeScale, int inFrameDuration, int inNumberOfFrames, bool inDropFrame) = 0;
};

//! A closed-caption sample description ('c608'). Constant.
class TOLBIN_EXPORT QTClosedCaptionDescription : public QTSampleDescription
{
public:
    ~QTClosedCaptionDescription() override;
};

//! \name Factories. They check nothing and fail only for lack of memory (`std::bad_alloc`).
//! @{

//! \param inCodec        data format, such as 'apcn'
//! \param inCodecName    name of the codec, shown to users; copied
//! \param inWidth        encoded width in pixels
//! \param inHeight       encoded height in pixels
//! \param inDepth        bits per pixel as the format counts them: 24 without, 32 with alpha
//! \param inFieldType    scanning of the frames ('fiel')
//! \param inPixelAspect  shape of a pixel ('pasp')
TOLBIN_EXPORT boost::shared_ptr<QTImageDescription>
CreateImageDescription(int inCodec, Tolbin::UTF16String& inCodecName, int inWidth, int inHeight, int inDepth,
                       Quorlan::FieldType inFieldType, Quorlan::PixelAspectRatio inPixelAspect);

//! One or two channels below 65536 Hz get the compact version 1 entry, all else the version 2 'lpcm' entry; both carry
//! the channel layout ('chan').
//!
//! \param inDiscreteChannel  number of the only channel of a one-channel track with discrete labelling, from 0
//! \param inChannelCount     channels per sample frame
//! \param inSampleRate       sample frames per second
//! \param inSampleType       form of a sample; one that is not listed is reported when the bytes are built
//! \param inChannels         label of each channel, in channel order; copied. A number other than `inChannelCount` is
//!                           reported when the bytes are built, and the entry then has no channel layout
//! \param inDiscrete         labels channels without a position as discrete ones; lets a single channel keep its label
//!                           instead of Mono
TOLBIN_EXPORT boost::shared_ptr<QTSoundDescription>
CreateSoundDescription(int inDiscreteChannel, int inChannelCount, int inSampleRate,
                       Sambrel::AudioSampleType inSampleType, const Quorlan::AudioChannelLayout& inChannels,
                       bool inDiscrete);

TOLBIN_EXPORT boost::shared_ptr<QTTextDescription> CreateTextDescription();

//! \param inTimeScale       time units per second, such as 30000
//! \param inFrameDuration   units per frame, such as 1001
//! \param inNumberOfFrames  frames per second as the timecode counts them, such as 30; its low 8 bits are written
//! \param inDropFrame       drop-frame counting
TOLBIN_EXPORT boost::shared_ptr<QTTimecodeDescription>
CreateTimecodeDescription(int inTimeScale, int inFrameDuration, int inNumberOfFrames, bool inDropFrame);

TOLBIN_EXPORT boost::shared_ptr<QTClosedCaptionDescription> CreateClosedCaptionDescription();

//! @}

} // namespace QT
