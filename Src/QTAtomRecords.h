#pragma once

// Every record with a fixed layout that is written to disk (QuickTime File Format). A record's memory image is the byte
// image in the file. The columns behind the fields: offset, width in bytes.

#include "QTDiskTypes.h"

#include <cstddef>
#include <cstdint>

using boost::endian::big_float64_t;
using boost::endian::big_int16_t;
using boost::endian::big_int32_t;
using boost::endian::big_uint16_t;
using boost::endian::big_uint32_t;
using boost::endian::big_uint64_t;

// ---- Atoms in general -----------------------------------------------------------------------------------------------

#pragma pack(push, 1)
//! The head of every atom. Alone among the records its fields are plain integers in file order, read and written
//! through `TO_BIG`, so that a header can be viewed in any array of bytes.
struct qtn_GenericAtomHeader
{
    std::uint32_t atomSize = 0; //  0  4  length of the whole atom, this header included
    std::uint32_t atomType = 0; //  4  4  four-character code

    constexpr qtn_GenericAtomHeader() = default;
    constexpr qtn_GenericAtomHeader(std::uint32_t inSize, std::uint32_t inType)
        : atomSize(TO_BIG(inSize)), atomType(TO_BIG(inType))
    {
    }
};
#pragma pack(pop)
static_assert(IsDiskRecord<qtn_GenericAtomHeader> && sizeof(qtn_GenericAtomHeader) == QT::kAtomHeaderSize);

using qtn_GenericAtomHeaderPtr = qtn_GenericAtomHeader*;

//! A transformation matrix; unity unless changed.
struct qtn_Matrix
{
    big_uint32_t a = QT::kFixedOne; //  0  4  16.16
    big_uint32_t b = 0;             //  4  4  16.16
    big_uint32_t u = 0;             //  8  4  2.30
    big_uint32_t c = 0;             // 12  4  16.16
    big_uint32_t d = QT::kFixedOne; // 16  4  16.16
    big_uint32_t v = 0;             // 20  4  2.30
    big_uint32_t x = 0;             // 24  4  16.16
    big_uint32_t y = 0;             // 28  4  16.16
    big_uint32_t w = QT::kFractOne; // 32  4  2.30
};
static_assert(IsDiskRecord<qtn_Matrix> && sizeof(qtn_Matrix) == 36);

//! A colour of 16 bits each.
struct qtn_Color
{
    big_uint16_t red = 0;   //  0  2
    big_uint16_t green = 0; //  2  2
    big_uint16_t blue = 0;  //  4  2
};
static_assert(IsDiskRecord<qtn_Color> && sizeof(qtn_Color) == 6);

// ---- Top level of the file ------------------------------------------------------------------------------------------

//! 'ftyp': the file is a QuickTime movie.
struct qtn_FileTypeAtom
{
    qtn_GenericAtomHeader header{32, QT::FourCC("ftyp")}; //  0  8
    big_uint32_t majorBrand = QT::FourCC("qt  ");         //  8  4
    big_uint32_t minorVersion = 0x20050300;               // 12  4  year and month, binary-coded decimal
    big_uint32_t compatibleBrands[4]{QT::FourCC("qt  ")}; // 16 16  three empty slots behind the first
};
static_assert(IsDiskRecord<qtn_FileTypeAtom> && sizeof(qtn_FileTypeAtom) == 32);

//! The header of an 'mdat' beyond 32 bits. Takes the place of an 8-byte 'wide' atom and the 32-bit header behind it.
struct qtn_MediaDataHeader64
{
    qtn_GenericAtomHeader header{1, QT::FourCC("mdat")}; //  0  8  size 1: the size follows
    big_uint64_t size = 0;                               //  8  8  this header included
};
static_assert(IsDiskRecord<qtn_MediaDataHeader64> && sizeof(qtn_MediaDataHeader64) == 16);

//! What stands in front of a text sample's characters.
struct qtn_TextSampleHead
{
    big_uint16_t textSize = 0;           //  0  2  bytes of text that follow, the byte-order mark included
    big_uint16_t byteOrderMark = 0xFFFE; //  2  2  little-endian UTF-16
};
static_assert(IsDiskRecord<qtn_TextSampleHead> && sizeof(qtn_TextSampleHead) == 4);

//! 'encd': how a text sample is encoded; stands behind its characters.
struct qtn_TextEncodingAtom
{
    qtn_GenericAtomHeader header{12, QT::FourCC("encd")}; //  0  8
    big_uint32_t encoding = 0x00000100;                   //  8  4  Unicode
};
static_assert(IsDiskRecord<qtn_TextEncodingAtom> && sizeof(qtn_TextEncodingAtom) == 12);

// ---- Movie, track and media headers ---------------------------------------------------------------------------------

//! 'mvhd': the movie's time scale and length.
struct qtn_MovieHeaderAtom
{
    qtn_GenericAtomHeader header{108, QT::FourCC("mvhd")}; //   0  8
    big_uint32_t versionAndFlags = 0;                      //   8  4
    big_uint32_t creationTime = 0;                         //  12  4  seconds since 1904-01-01
    big_uint32_t modificationTime = 0;                     //  16  4
    big_uint32_t timeScale = 0;                            //  20  4  units per second
    big_uint32_t duration = 0;                             //  24  4  in timeScale units
    big_uint32_t preferredRate = QT::kFixedOne;            //  28  4  16.16
    big_uint16_t preferredVolume = QT::kShortFixedOne;     //  32  2  8.8
    std::uint8_t reserved[10]{};                           //  34 10
    qtn_Matrix matrix;                                     //  44 36
    big_uint32_t previewTime = 0;                          //  80  4
    big_uint32_t previewDuration = 0;                      //  84  4
    big_uint32_t posterTime = 0;                           //  88  4
    big_uint32_t selectionTime = 0;                        //  92  4
    big_uint32_t selectionDuration = 0;                    //  96  4
    big_uint32_t currentTime = 0;                          // 100  4
    big_uint32_t nextTrackID = 0;                          // 104  4
};
static_assert(IsDiskRecord<qtn_MovieHeaderAtom> && sizeof(qtn_MovieHeaderAtom) == 108);
static_assert(offsetof(qtn_MovieHeaderAtom, matrix) == 44 && offsetof(qtn_MovieHeaderAtom, nextTrackID) == 104);

//! 'tkhd': one track's place in the movie.
struct qtn_TrackHeaderAtom
{
    qtn_GenericAtomHeader header{92, QT::FourCC("tkhd")}; //  0  8
    big_uint32_t versionAndFlags = 0;                     //  8  4  1 enabled, 2 in movie, 4 in preview, 8 in poster
    big_uint32_t creationTime = 0;                        // 12  4  seconds since 1904-01-01
    big_uint32_t modificationTime = 0;                    // 16  4
    big_uint32_t trackID = 0;                             // 20  4  from 1
    big_uint32_t reserved1 = 0;                           // 24  4
    big_uint32_t duration = 0;                            // 28  4  in movie time-scale units
    std::uint8_t reserved2[8]{};                          // 32  8
    big_uint16_t layer = 0;                               // 40  2
    big_uint16_t alternateGroup = 0;                      // 42  2
    big_uint16_t volume = 0;                              // 44  2  8.8
    big_uint16_t reserved3 = 0;                           // 46  2
    qtn_Matrix matrix;                                    // 48 36
    big_uint32_t trackWidth = 0;                          // 84  4  16.16 pixels
    big_uint32_t trackHeight = 0;                         // 88  4  16.16 pixels
};
static_assert(IsDiskRecord<qtn_TrackHeaderAtom> && sizeof(qtn_TrackHeaderAtom) == 92);
static_assert(offsetof(qtn_TrackHeaderAtom, duration) == 28 && offsetof(qtn_TrackHeaderAtom, layer) == 40);
static_assert(offsetof(qtn_TrackHeaderAtom, matrix) == 48 && offsetof(qtn_TrackHeaderAtom, trackHeight) == 88);

//! 'mdhd': the time scale and length of one track's media.
struct qtn_MediaHeaderAtom
{
    qtn_GenericAtomHeader header{32, QT::FourCC("mdhd")}; //  0  8
    big_uint32_t versionAndFlags = 0;                     //  8  4
    big_uint32_t creationTime = 0;                        // 12  4  seconds since 1904-01-01
    big_uint32_t modificationTime = 0;                    // 16  4
    big_uint32_t timeScale = 0;                           // 20  4  units per second
    big_uint32_t duration = 0;                            // 24  4  in timeScale units
    big_uint16_t language = 0;                            // 28  2  English
    big_uint16_t quality = 0;                             // 30  2
};
static_assert(IsDiskRecord<qtn_MediaHeaderAtom> && sizeof(qtn_MediaHeaderAtom) == 32);

//! 'edts' with the head of its 'elst'; the entries follow. Both sizes depend on their number.
struct qtn_EditsAtom
{
    qtn_GenericAtomHeader header;                      //  0  8
    qtn_GenericAtomHeader list{0, QT::FourCC("elst")}; //  8  8
    big_uint32_t versionAndFlags = 0;                  // 16  4
    big_uint32_t entryCount = 0;                       // 20  4
};
static_assert(IsDiskRecord<qtn_EditsAtom> && sizeof(qtn_EditsAtom) == 24);

//! One edit of an 'elst'.
struct qtn_EditListEntry
{
    big_uint32_t trackDuration = 0;         //  0  4  in movie time-scale units
    big_int32_t mediaTime = 0;              //  4  4  in media time-scale units; -1 is an empty edit
    big_uint32_t mediaRate = QT::kFixedOne; //  8  4  16.16
};
static_assert(IsDiskRecord<qtn_EditListEntry> && sizeof(qtn_EditListEntry) == 12);

//! 'load': how the track is to be loaded before it is played.
struct qtn_TrackLoadSettingsAtom
{
    qtn_GenericAtomHeader header{24, QT::FourCC("load")}; //  0  8
    big_uint32_t preloadStartTime = 0;                    //  8  4
    big_uint32_t preloadDuration = 0;                     // 12  4
    big_uint32_t preloadFlags = 0;                        // 16  4
    big_uint32_t defaultHints = 0x00000100;               // 20  4  high quality
};
static_assert(IsDiskRecord<qtn_TrackLoadSettingsAtom> && sizeof(qtn_TrackLoadSettingsAtom) == 24);

// ---- Handlers and media information ---------------------------------------------------------------------------------

//! The media 'hdlr'; its name, a Pascal string, follows the length byte.
struct qtn_MediaHandlerAtom
{
    qtn_GenericAtomHeader header;                    //  0  8  33 + nameLength
    big_uint32_t versionAndFlags = 0;                //  8  4
    big_uint32_t componentType = QT::FourCC("mhlr"); // 12  4
    big_uint32_t componentSubtype = 0;               // 16  4
    big_uint32_t componentManufacturer = 0;          // 20  4
    big_uint32_t componentFlags = 0;                 // 24  4
    big_uint32_t componentFlagsMask = 0;             // 28  4
    std::uint8_t nameLength = 0;                     // 32  1
};
static_assert(IsDiskRecord<qtn_MediaHandlerAtom> && sizeof(qtn_MediaHandlerAtom) == 33);

//! The data 'hdlr': media is found through an alias.
struct qtn_CanonicalDataHandlerAtom
{
    qtn_GenericAtomHeader header{57, QT::FourCC("hdlr")};    //  0  8
    big_uint32_t versionAndFlags = 0;                        //  8  4
    big_uint32_t componentType = QT::FourCC("dhlr");         // 12  4
    big_uint32_t componentSubtype = QT::FourCC("alis");      // 16  4
    big_uint32_t componentManufacturer = QT::FourCC("appl"); // 20  4
    big_uint32_t componentFlags = 0x00000001;                // 24  4
    big_uint32_t componentFlagsMask = 0x0001002E;            // 28  4
    std::uint8_t nameLength = 24;                            // 32  1
    char name[24] = {'A', 'p', 'p', 'l', 'e', ' ', 'A', 'l', 'i', 'a', 's', ' ',
                     'D', 'a', 't', 'a', ' ', 'H', 'a', 'n', 'd', 'l', 'e', 'r'}; // 33 24
};
static_assert(IsDiskRecord<qtn_CanonicalDataHandlerAtom> && sizeof(qtn_CanonicalDataHandlerAtom) == 57);
static_assert(offsetof(qtn_CanonicalDataHandlerAtom, name) == 33);

//! 'dinf' with a 'dref' of one alias, whose flag says that the media lies in the movie file itself.
struct qtn_OneDataRef
{
    qtn_GenericAtomHeader header{36, QT::FourCC("dinf")};         //  0  8
    qtn_GenericAtomHeader dataReferences{28, QT::FourCC("dref")}; //  8  8
    big_uint32_t versionAndFlags = 0;                             // 16  4
    big_uint32_t entryCount = 1;                                  // 20  4
    qtn_GenericAtomHeader alias{12, QT::FourCC("alis")};          // 24  8
    big_uint32_t aliasVersionAndFlags = 0x00000001;               // 32  4  1: self reference
};
static_assert(IsDiskRecord<qtn_OneDataRef> && sizeof(qtn_OneDataRef) == 36);

//! 'vmhd': how video is drawn.
struct qtn_VideoMediaInfoHeaderAtom
{
    qtn_GenericAtomHeader header{20, QT::FourCC("vmhd")};                                   //  0  8
    big_uint32_t versionAndFlags = 0x00000001;                                              //  8  4
    big_uint16_t graphicsMode = QT::kDitherCopyMode;                                        // 12  2
    qtn_Color opColor{QT::kOpColorComponent, QT::kOpColorComponent, QT::kOpColorComponent}; // 14  6
};
static_assert(IsDiskRecord<qtn_VideoMediaInfoHeaderAtom> && sizeof(qtn_VideoMediaInfoHeaderAtom) == 20);

//! 'smhd': how sound is placed.
struct qtn_SoundMediaInfoHeaderAtom
{
    qtn_GenericAtomHeader header{16, QT::FourCC("smhd")}; //  0  8
    big_uint32_t versionAndFlags = 0;                     //  8  4
    big_uint16_t balance = 0;                             // 12  2  8.8
    big_uint16_t reserved = 0;                            // 14  2
};
static_assert(IsDiskRecord<qtn_SoundMediaInfoHeaderAtom> && sizeof(qtn_SoundMediaInfoHeaderAtom) == 16);

//! 'gmin': the first child of every 'gmhd'.
struct qtn_GenericMediaInfoAtom
{
    qtn_GenericAtomHeader header{24, QT::FourCC("gmin")};                                   //  0  8
    big_uint32_t versionAndFlags = 0;                                                       //  8  4
    big_uint16_t graphicsMode = QT::kDitherCopyMode;                                        // 12  2
    qtn_Color opColor{QT::kOpColorComponent, QT::kOpColorComponent, QT::kOpColorComponent}; // 14  6
    big_uint16_t balance = 0;                                                               // 20  2
    big_uint16_t reserved = 0;                                                              // 22  2
};
static_assert(IsDiskRecord<qtn_GenericMediaInfoAtom> && sizeof(qtn_GenericMediaInfoAtom) == 24);

//! 'text': the child of a text track's 'gmhd'.
struct qtn_TextMediaInfoAtom
{
    qtn_GenericAtomHeader header{44, QT::FourCC("text")}; //  0  8
    qtn_Matrix matrix;                                    //  8 36
};
static_assert(IsDiskRecord<qtn_TextMediaInfoAtom> && sizeof(qtn_TextMediaInfoAtom) == 44);

//! 'tmcd' with its 'tcmi': how a timecode track is drawn.
struct qtn_TimecodeMediaInfoAtom
{
    qtn_GenericAtomHeader header{47, QT::FourCC("tmcd")};    //  0  8
    qtn_GenericAtomHeader mediaInfo{39, QT::FourCC("tcmi")}; //  8  8
    big_uint32_t versionAndFlags = 0;                        // 16  4
    big_uint16_t textFont = 0;                               // 20  2
    big_uint16_t textFace = 0;                               // 22  2
    big_uint16_t textSize = 12;                              // 24  2
    big_uint16_t reserved = 0;                               // 26  2
    qtn_Color textColor;                                     // 28  6
    qtn_Color backgroundColor{0x0000, 0xFFFF, 0xFFFF};       // 34  6
    std::uint8_t fontNameLength = 6;                         // 40  1
    char fontName[6] = {'S', 'y', 's', 't', 'e', 'm'};       // 41  6
};
static_assert(IsDiskRecord<qtn_TimecodeMediaInfoAtom> && sizeof(qtn_TimecodeMediaInfoAtom) == 47);
static_assert(offsetof(qtn_TimecodeMediaInfoAtom, textColor) == 28);
static_assert(offsetof(qtn_TimecodeMediaInfoAtom, fontName) == 41);

//! 'clef', 'prof' and 'enof': one of a track's aperture dimensions.
struct qtn_ApertureDimensionsAtom
{
    qtn_GenericAtomHeader header;     //  0  8
    big_uint32_t versionAndFlags = 0; //  8  4
    big_uint32_t width = 0;           // 12  4  16.16 pixels
    big_uint32_t height = 0;          // 16  4  16.16 pixels
};
static_assert(IsDiskRecord<qtn_ApertureDimensionsAtom> && sizeof(qtn_ApertureDimensionsAtom) == 20);

// ---- Sample tables --------------------------------------------------------------------------------------------------

//! 'stsd': the head in front of a track's one sample-description entry.
struct qtn_SampleDescriptionAtom
{
    qtn_GenericAtomHeader header;     //  0  8
    big_uint32_t versionAndFlags = 0; //  8  4
    big_uint32_t entryCount = 1;      // 12  4
};
static_assert(IsDiskRecord<qtn_SampleDescriptionAtom> && sizeof(qtn_SampleDescriptionAtom) == 16);

//! 'stsz': sizes of the samples. The table, one 32-bit size a sample, follows unless they share one.
struct qtn_SampleSizeAtom
{
    qtn_GenericAtomHeader header{0, QT::FourCC("stsz")}; //  0  8
    big_uint32_t versionAndFlags = 0;                    //  8  4
    big_uint32_t sampleSize = 0;                         // 12  4  bytes; 0 when the table follows
    big_uint32_t sampleCount = 0;                        // 16  4
};
static_assert(IsDiskRecord<qtn_SampleSizeAtom> && sizeof(qtn_SampleSizeAtom) == 20);

//! 'stts': durations of the samples; entries follow.
struct qtn_TimeToSampleAtom
{
    qtn_GenericAtomHeader header{0, QT::FourCC("stts")}; //  0  8
    big_uint32_t versionAndFlags = 0;                    //  8  4
    big_uint32_t entryCount = 0;                         // 12  4
};
static_assert(IsDiskRecord<qtn_TimeToSampleAtom> && sizeof(qtn_TimeToSampleAtom) == 16);

struct qtn_TimeToSampleEntry
{
    big_uint32_t sampleCount = 0;    //  0  4
    big_uint32_t sampleDuration = 0; //  4  4  in media time-scale units
};
static_assert(IsDiskRecord<qtn_TimeToSampleEntry> && sizeof(qtn_TimeToSampleEntry) == 8);

//! 'stsc': how many samples the chunks hold; entries follow.
struct qtn_SampleToChunkAtom
{
    qtn_GenericAtomHeader header{0, QT::FourCC("stsc")}; //  0  8
    big_uint32_t versionAndFlags = 0;                    //  8  4
    big_uint32_t entryCount = 0;                         // 12  4
};
static_assert(IsDiskRecord<qtn_SampleToChunkAtom> && sizeof(qtn_SampleToChunkAtom) == 16);

struct qtn_SampleToChunkEntry
{
    big_uint32_t firstChunk = 0;          //  0  4  from 1; holds up to the next entry's
    big_uint32_t samplesPerChunk = 0;     //  4  4
    big_uint32_t sampleDescriptionID = 1; //  8  4
};
static_assert(IsDiskRecord<qtn_SampleToChunkEntry> && sizeof(qtn_SampleToChunkEntry) == 12);

//! 'stco': 32-bit file offsets of the chunks, which follow.
struct qtn_ChunkOffsetAtom
{
    qtn_GenericAtomHeader header{0, QT::FourCC("stco")}; //  0  8
    big_uint32_t versionAndFlags = 0;                    //  8  4
    big_uint32_t entryCount = 0;                         // 12  4
};
static_assert(IsDiskRecord<qtn_ChunkOffsetAtom> && sizeof(qtn_ChunkOffsetAtom) == 16);

//! 'co64': 64-bit file offsets of the chunks, which follow.
struct qtn_ChunkOffsetAtom64
{
    qtn_GenericAtomHeader header{0, QT::FourCC("co64")}; //  0  8
    big_uint32_t versionAndFlags = 0;                    //  8  4
    big_uint32_t entryCount = 0;                         // 12  4
};
static_assert(IsDiskRecord<qtn_ChunkOffsetAtom64> && sizeof(qtn_ChunkOffsetAtom64) == 16);

// ---- Sample descriptions --------------------------------------------------------------------------------------------

//! The head of every sample-description entry; alone it is a closed-caption entry.
struct qtn_SampleDescriptionHeader
{
    qtn_GenericAtomHeader header;        //  0  8  size of the entry with its extensions; data format
    std::uint8_t reserved[6]{};          //  8  6
    big_uint16_t dataReferenceIndex = 1; // 14  2
};
static_assert(IsDiskRecord<qtn_SampleDescriptionHeader> && sizeof(qtn_SampleDescriptionHeader) == 16);
static_assert(offsetof(qtn_SampleDescriptionHeader, dataReferenceIndex) == 14);

//! 'text'
struct qtn_TextDescription
{
    qtn_SampleDescriptionHeader entry{{59, QT::FourCC("text")}}; //  0 16
    big_uint32_t displayFlags = 0;                               // 16  4
    big_uint32_t textJustification = 0;                          // 20  4
    qtn_Color backgroundColor;                                   // 24  6
    big_int16_t defaultTextBox[4]{};                             // 30  8  top, left, bottom, right
    big_uint32_t styleStartCharacter = 0;                        // 38  4
    big_uint16_t styleLineHeight = 16;                           // 42  2
    big_uint16_t styleAscent = 13;                               // 44  2
    big_uint16_t styleFontNumber = 0;                            // 46  2
    big_uint16_t styleFace = 0;                                  // 48  2
    big_uint16_t styleFontSize = 12;                             // 50  2
    qtn_Color styleForegroundColor;                              // 52  6
    std::uint8_t fontNameLength = 0;                             // 58  1
};
static_assert(IsDiskRecord<qtn_TextDescription> && sizeof(qtn_TextDescription) == 59);
static_assert(offsetof(qtn_TextDescription, styleLineHeight) == 42);

//! 'tmcd'
struct qtn_TimecodeDescription
{
    qtn_SampleDescriptionHeader entry{{34, QT::FourCC("tmcd")}}; //  0 16
    big_uint32_t reserved1 = 0;                                  // 16  4
    big_uint32_t flags = 0;                                      // 20  4  1 drop frame
    big_int32_t timeScale = 0;                                   // 24  4  units per second
    big_int32_t frameDuration = 0;                               // 28  4  in timeScale units
    std::uint8_t numberOfFrames = 0;                             // 32  1  per second, as counted
    std::uint8_t reserved2 = 0;                                  // 33  1
};
static_assert(IsDiskRecord<qtn_TimecodeDescription> && sizeof(qtn_TimecodeDescription) == 34);
static_assert(offsetof(qtn_TimecodeDescription, flags) == 20);

//! A video entry; extension atoms follow.
struct qtn_ImageDescription
{
    qtn_SampleDescriptionHeader entry;              //  0 16
    big_uint16_t version = 1;                       // 16  2
    big_int16_t revisionLevel = 0;                  // 18  2
    big_uint32_t vendor = 0;                        // 20  4
    big_uint32_t temporalQuality = 0;               // 24  4  0 to 1023
    big_uint32_t spatialQuality = 0;                // 28  4  0 to 1024
    big_uint16_t width = 0;                         // 32  2  pixels
    big_uint16_t height = 0;                        // 34  2  pixels
    big_uint32_t horizontalResolution = 0x00480000; // 36  4  16.16 pixels per inch
    big_uint32_t verticalResolution = 0x00480000;   // 40  4  16.16 pixels per inch
    big_uint32_t dataSize = 0;                      // 44  4
    big_uint16_t frameCount = 1;                    // 48  2  frames per sample
    std::uint8_t nameLength = 0;                    // 50  1
    char name[31]{};                                // 51 31
    big_uint16_t depth = 0;                         // 82  2  bits per pixel
    big_int16_t colorTableID = -1;                  // 84  2  none
};
static_assert(IsDiskRecord<qtn_ImageDescription> && sizeof(qtn_ImageDescription) == 86);
static_assert(offsetof(qtn_ImageDescription, nameLength) == 50 && offsetof(qtn_ImageDescription, depth) == 82);

//! 'colr': colour of a video track.
struct qtn_ColorParameterAtom
{
    qtn_GenericAtomHeader header{18, QT::FourCC("colr")}; //  0  8
    big_uint32_t parameterType = QT::FourCC("nclc");      //  8  4
    big_uint16_t primaries = 0;                           // 12  2  index
    big_uint16_t transferFunction = 0;                    // 14  2  index
    big_uint16_t matrix = 0;                              // 16  2  index
};
static_assert(IsDiskRecord<qtn_ColorParameterAtom> && sizeof(qtn_ColorParameterAtom) == 18);

//! 'fiel': scanning of a video track.
struct qtn_FieldAtom
{
    qtn_GenericAtomHeader header{10, QT::FourCC("fiel")}; //  0  8
    std::uint8_t fieldCount = 1;                          //  8  1
    std::uint8_t fieldDetail = 0;                         //  9  1  order in time and in storage
};
static_assert(IsDiskRecord<qtn_FieldAtom> && sizeof(qtn_FieldAtom) == 10);

//! 'pasp': shape of a pixel.
struct qtn_PixelAspectAtom
{
    qtn_GenericAtomHeader header{16, QT::FourCC("pasp")}; //  0  8
    big_uint32_t horizontalSpacing = 0;                   //  8  4
    big_uint32_t verticalSpacing = 0;                     // 12  4
};
static_assert(IsDiskRecord<qtn_PixelAspectAtom> && sizeof(qtn_PixelAspectAtom) == 16);

//! 'clap': the part of the frame to show, in pixels; offsets are from centre to centre.
struct qtn_CleanApertureAtom
{
    qtn_GenericAtomHeader header{40, QT::FourCC("clap")}; //  0  8
    big_uint32_t widthN = 0;                              //  8  4
    big_uint32_t widthD = 0;                              // 12  4
    big_uint32_t heightN = 0;                             // 16  4
    big_uint32_t heightD = 0;                             // 20  4
    big_int32_t horizOffN = 0;                            // 24  4
    big_uint32_t horizOffD = 0;                           // 28  4
    big_int32_t vertOffN = 0;                             // 32  4
    big_uint32_t vertOffD = 0;                            // 36  4
};
static_assert(IsDiskRecord<qtn_CleanApertureAtom> && sizeof(qtn_CleanApertureAtom) == 40);

//! 'gama'
struct qtn_GammaAtom
{
    qtn_GenericAtomHeader header{12, QT::FourCC("gama")}; //  0  8
    big_uint32_t gamma = 0x00023333;                      //  8  4  16.16: 2.2
};
static_assert(IsDiskRecord<qtn_GammaAtom> && sizeof(qtn_GammaAtom) == 12);

//! A version 1 sound entry; 'wave' and 'chan' follow.
struct qtn_SoundDescriptionV1
{
    qtn_SampleDescriptionHeader entry; //  0 16
    big_uint16_t version = 1;          // 16  2
    big_uint16_t revisionLevel = 0;    // 18  2
    big_uint32_t vendor = 0x20202020;  // 20  4
    big_uint16_t numberOfChannels = 0; // 24  2
    big_uint16_t sampleSize = 0;       // 26  2  bits
    big_int16_t compressionID = -1;    // 28  2
    big_uint16_t packetSize = 0;       // 30  2
    big_uint32_t sampleRate = 0;       // 32  4  16.16 hertz
    big_uint32_t samplesPerPacket = 1; // 36  4
    big_uint32_t bytesPerPacket = 0;   // 40  4  of one channel
    big_uint32_t bytesPerFrame = 0;    // 44  4  of all channels
    big_uint32_t bytesPerSample = 0;   // 48  4
};
static_assert(IsDiskRecord<qtn_SoundDescriptionV1> && sizeof(qtn_SoundDescriptionV1) == 52);

//! A version 2 sound entry ('lpcm'); 'chan' follows.
struct qtn_SoundDescriptionV2
{
    qtn_SampleDescriptionHeader entry{{72, QT::FourCC("lpcm")}}; //  0 16
    big_uint16_t version = 2;                                    // 16  2
    big_uint16_t revisionLevel = 0;                              // 18  2
    big_uint32_t vendor = 0x20202020;                            // 20  4
    big_uint16_t always3 = 3;                                    // 24  2
    big_uint16_t always16 = 16;                                  // 26  2
    big_int16_t alwaysMinus2 = -2;                               // 28  2
    big_uint16_t always0 = 0;                                    // 30  2
    big_uint32_t always65536 = 65536;                            // 32  4
    big_uint32_t sizeOfStructOnly = 72;                          // 36  4
    big_float64_t sampleRate = 0;                                // 40  8  hertz
    big_uint32_t numberOfChannels = 0;                           // 48  4
    big_uint32_t always7F000000 = 0x7F000000;                    // 52  4
    big_uint32_t bitsPerChannel = 0;                             // 56  4
    big_uint32_t formatFlags = 0;                                // 60  4  1 float, 2 big-endian, 4 signed, 8 packed
    big_uint32_t bytesPerPacket = 0;                             // 64  4  of all channels
    big_uint32_t framesPerPacket = 1;                            // 68  4
};
static_assert(IsDiskRecord<qtn_SoundDescriptionV2> && sizeof(qtn_SoundDescriptionV2) == 72);
static_assert(offsetof(qtn_SoundDescriptionV2, sampleRate) == 40);

//! 'wave' with 'frma', 'enda' and a terminator: byte order of version 1 sound.
struct qtn_WaveAtom
{
    qtn_GenericAtomHeader header{38, QT::FourCC("wave")};     //  0  8
    qtn_GenericAtomHeader format{12, QT::FourCC("frma")};     //  8  8
    big_uint32_t dataFormat = 0;                              // 16  4
    qtn_GenericAtomHeader endianness{10, QT::FourCC("enda")}; // 20  8
    big_uint16_t littleEndian = 0;                            // 28  2  1 little-endian
    qtn_GenericAtomHeader terminator{8, 0};                   // 30  8
};
static_assert(IsDiskRecord<qtn_WaveAtom> && sizeof(qtn_WaveAtom) == 38);

//! 'chan': the channel layout; channel descriptions follow.
struct qtn_AudioChannelLayoutAtom
{
    qtn_GenericAtomHeader header{0, QT::FourCC("chan")}; //  0  8
    big_uint32_t versionAndFlags = 0;                    //  8  4
    big_uint32_t layoutTag = 0;                          // 12  4  0: the descriptions give the layout
    big_uint32_t channelBitmap = 0;                      // 16  4
    big_uint32_t descriptionCount = 0;                   // 20  4
};
static_assert(IsDiskRecord<qtn_AudioChannelLayoutAtom> && sizeof(qtn_AudioChannelLayoutAtom) == 24);

//! What a channel is for, as the format numbers it.
enum qtn_AudioChannelLabel : std::uint32_t
{
    qtn_kLabelUnknown = 0xFFFFFFFF,
    qtn_kLabelLeft = 1,
    qtn_kLabelRight = 2,
    qtn_kLabelCenter = 3,
    qtn_kLabelLFEScreen = 4,
    qtn_kLabelLeftSurround = 5,
    qtn_kLabelRightSurround = 6,
    qtn_kLabelLeftCenter = 7,
    qtn_kLabelRightCenter = 8,
    qtn_kLabelCenterSurround = 9,
    qtn_kLabelLeftSurroundDirect = 10,
    qtn_kLabelRightSurroundDirect = 11,
    qtn_kLabelTopCenterSurround = 12,
    qtn_kLabelVerticalHeightLeft = 13,
    qtn_kLabelVerticalHeightCenter = 14,
    qtn_kLabelVerticalHeightRight = 15,
    qtn_kLabelTopBackLeft = 16,
    qtn_kLabelTopBackCenter = 17,
    qtn_kLabelTopBackRight = 18,
    qtn_kLabelRearSurroundLeft = 33,
    qtn_kLabelRearSurroundRight = 34,
    qtn_kLabelLeftWide = 35,
    qtn_kLabelRightWide = 36,
    qtn_kLabelLFE2 = 37,
    qtn_kLabelLeftTotal = 38,
    qtn_kLabelRightTotal = 39,
    qtn_kLabelMono = 42,
    qtn_kLabelAmbisonicW = 200,
    qtn_kLabelAmbisonicX = 201,
    qtn_kLabelAmbisonicY = 202,
    qtn_kLabelAmbisonicZ = 203,
    qtn_kLabelDiscrete0 = 0x10000 //!< Discrete channel n is this plus n.
};

//! The layout tag of plain stereo: tag 101 with two channels.
inline constexpr std::uint32_t qtn_kLayoutTagStereo = 0x00650002;

struct qtn_AudioChannelDescription
{
    big_uint32_t label = 0;        //  0  4
    big_uint32_t flags = 0;        //  4  4
    big_uint32_t coordinates[3]{}; //  8 12  floats, unused
};
static_assert(IsDiskRecord<qtn_AudioChannelDescription> && sizeof(qtn_AudioChannelDescription) == 20);
