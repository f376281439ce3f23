#include "QTAtomHelpers.h"

#include "SampleTables.h"

#include <Tolbin/Debug.h>

#include <algorithm>
#include <iterator>
#include <limits>
#include <stdexcept>
#include <string_view>

namespace
{

constexpr std::uint32_t daysInEachMonth[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};

bool IsLeapYear(int inYear)
{
    return inYear % 400 == 0 || (inYear % 4 == 0 && inYear % 100 != 0);
}

//! A date as the headers store it: the low 32 bits of the seconds since 1904.
std::uint32_t HeaderTime(const std::tm& inDate)
{
    return QT::Low32(DateTimeToQTTimeSeconds(inDate.tm_mday, inDate.tm_mon + 1, inDate.tm_year + 1900, inDate.tm_hour,
                                             inDate.tm_min, inDate.tm_sec));
}

// ---- Media types ----------------------------------------------------------------------------------------------------

struct MediaTypeRow
{
    std::uint32_t subtype;
    std::uint32_t manufacturer;
    std::uint32_t flags;
    std::uint32_t flagsMask;
    std::string_view name;
};

constexpr std::uint32_t kUnknownComponent = 0xFFFFFFFF;

//! One row for each media type from 256 on.
constexpr MediaTypeRow kMediaTypes[] = {
    {QT::FourCC("vide"), QT::FourCC("appl"), 0x00000001, 0x00000001, "Apple Video Media Handler"},
    {QT::FourCC("soun"), QT::FourCC("appl"), 0x00000001, 0x00000001, "Apple Sound Media Handler"},
    {QT::FourCC("tmcd"), QT::FourCC("appl"), 0x00000001, 0x00000001, "Time Code Media Handler"},
    {QT::FourCC("clcp"), QT::FourCC("appl"), 0x00000001, 0x00000001, "Apple Closed Caption Media Handler"},
    {QT::FourCC("text"), QT::FourCC("app2"), 0x80000001, 0x00010029, "Apple Text Media Handler"},
};

//! The row of a media type, or null when there is none.
const MediaTypeRow* FindMediaType(QT::MediaType inMediaType)
{
    const std::uint32_t index = static_cast<std::uint32_t>(inMediaType) - QT::kQTMediaTypeVideo;
    return index < std::size(kMediaTypes) ? &kMediaTypes[index] : nullptr;
}

// Four lookups, each with its own report.

std::uint32_t MediaTypeToComponentSubtype(QT::MediaType inMediaType)
{
    const MediaTypeRow* row = FindMediaType(inMediaType);
    TOLBIN_ASSERT_AS(row != nullptr, "false", __PRETTY_FUNCTION__,
                     "Unknown media type: " << static_cast<std::uint32_t>(inMediaType) << '\n');
    return row != nullptr ? row->subtype : kUnknownComponent;
}

std::uint32_t GetMediaHandlerComponentManufacturer(QT::MediaType inMediaType)
{
    const MediaTypeRow* row = FindMediaType(inMediaType);
    TOLBIN_ASSERT_AS(row != nullptr, "false", __PRETTY_FUNCTION__,
                     "Unknown media type: " << static_cast<std::uint32_t>(inMediaType) << '\n');
    return row != nullptr ? row->manufacturer : kUnknownComponent;
}

std::uint32_t GetMediaHandlerComponentFlags(QT::MediaType inMediaType)
{
    const MediaTypeRow* row = FindMediaType(inMediaType);
    TOLBIN_ASSERT_AS(row != nullptr, "false", __PRETTY_FUNCTION__,
                     "Unknown media type: " << static_cast<std::uint32_t>(inMediaType) << '\n');
    return row != nullptr ? row->flags : kUnknownComponent;
}

std::uint32_t GetMediaHandlerComponentFlagsMask(QT::MediaType inMediaType)
{
    const MediaTypeRow* row = FindMediaType(inMediaType);
    TOLBIN_ASSERT_AS(row != nullptr, "false", __PRETTY_FUNCTION__,
                     "Unknown media type: " << static_cast<std::uint32_t>(inMediaType) << '\n');
    return row != nullptr ? row->flagsMask : kUnknownComponent;
}

//! For known types only.
std::string_view GetHardCodedMediaHandlerName(QT::MediaType inMediaType)
{
    return FindMediaType(inMediaType)->name;
}

std::uint32_t TrackHeaderFlags(QT::MediaType inMediaType)
{
    constexpr std::uint32_t kEnabledInMovie = 0x3;
    constexpr std::uint32_t kInPreviewAndPoster = 0xC;
    switch (inMediaType)
    {
    case QT::kQTMediaTypeVideo:
    case QT::kQTMediaTypeClosedCaption:
    case QT::kQTMediaTypeText:
        return kEnabledInMovie | kInPreviewAndPoster;
    default:
        return kEnabledInMovie;
    }
}

std::uint32_t TrackReferenceTypeToReferenceTypeFourCC(QT::TrackReferenceType inType)
{
    switch (inType)
    {
    case QT::kQTTrackReferenceTimecode:
        return QT::FourCC("tmcd");
    case QT::kQTTrackReferenceChapter:
        return QT::FourCC("chap");
    }
    TOLBIN_REPORT("0", "");
    return 0xFFFFFFFF;
}

// ---- Apertures ------------------------------------------------------------------------------------------------------

//! Whole pixels as 16.16; higher bits are cut off.
std::uint32_t WholePixels(std::uint32_t inPixels)
{
    return inPixels << 16;
}

//! Pixels as 16.16, rounded to the nearest (halves up); saturates at the ends of signed 32 bits.
std::uint32_t FixedPixels(double inPixels)
{
    using Limits = std::numeric_limits<std::int32_t>;
    const double fixed = inPixels * 65536 + 0.5;
    return QT::Bits32(static_cast<std::int32_t>(std::clamp<double>(fixed, Limits::min(), Limits::max())));
}

qtn_ApertureDimensionsAtom MakeApertureDimensions(std::uint32_t inType, std::uint32_t inWidth, std::uint32_t inHeight)
{
    qtn_ApertureDimensionsAtom atom;
    atom.header = qtn_GenericAtomHeader(sizeof(atom), inType);
    atom.width = inWidth;
    atom.height = inHeight;
    return atom;
}

// ---- Sample tables --------------------------------------------------------------------------------------------------

//! An atom's array, as `SampleTableItemsRec` owns it.
template <typename Atom>
std::uint8_t* AllocateAtom(std::uint64_t inSize, Atom*& outAtom)
{
    auto* const bytes = new std::uint8_t[inSize];
    outAtom = reinterpret_cast<Atom*>(bytes);
    return bytes;
}

//! An atom in its generic form, for a list of atoms; null stays null.
template <typename Atom>
qtn_GenericAtomHeader* AsGeneric(Atom* inAtom)
{
    return reinterpret_cast<qtn_GenericAtomHeader*>(inAtom);
}

} // namespace

std::uint64_t DateTimeToQTTimeSeconds(int inDay, int inMonth, int inYear, int inHour, int inMinute, int inSecond)
{
    std::uint32_t days = 0;
    for (int year = 1904; year < inYear; ++year)
    {
        days += IsLeapYear(year) ? 366 : 365;
    }
    for (int month = 1; month < inMonth && month <= 12; ++month)
    {
        days += daysInEachMonth[month - 1];
    }
    if (inMonth >= 3 && IsLeapYear(inYear))
    {
        ++days;
    }
    days += QT::Bits32(inDay) - 1;
    const std::int64_t secondsOfDay = std::int64_t{inHour * 3600} + inMinute * 60 + inSecond;
    return std::uint64_t{days} * 86400 + static_cast<std::uint64_t>(secondsOfDay);
}

namespace QT
{

qtn_GenericAtomHeaderPtr AtomHeader(Tolbin::utility::BinaryDataArray& inAtom)
{
    return AsGeneric(inAtom.data());
}

// ---- Containers -----------------------------------------------------------------------------------------------------

// 0 size, 4 type, 8 the children one behind the other.
void ConcatenateAtomsToAtomContainer(int inType, std::vector<qtn_GenericAtomHeader*>& inAtoms,
                                     Tolbin::utility::BinaryDataArray& outContainer)
{
    std::uint64_t size = kAtomHeaderSize;
    for (const qtn_GenericAtomHeader* atom : inAtoms)
    {
        size += atom != nullptr ? TO_BIG(atom->atomSize) : 0;
    }
    if (size > kMaxAtomSize)
    {
        throw std::length_error("an atom would reach 2 GiB");
    }
    outContainer.resize(size);
    StoreRecord(outContainer, 0, qtn_GenericAtomHeader(Low32(size), Bits32(inType)));
    std::size_t offset = kAtomHeaderSize;
    for (const qtn_GenericAtomHeader* atom : inAtoms)
    {
        if (atom != nullptr)
        {
            const std::uint32_t atomSize = TO_BIG(atom->atomSize);
            std::memcpy(outContainer.data() + offset, atom, atomSize);
            offset += atomSize;
        }
    }
}

// ---- Media types and handlers ---------------------------------------------------------------------------------------

bool IsKnownMediaType(MediaType inMediaType)
{
    const bool isKnown = FindMediaType(inMediaType) != nullptr;
    TOLBIN_ASSERT_AS(isKnown, "false", __PRETTY_FUNCTION__,
                     "Unknown MediaType: " << static_cast<std::uint32_t>(inMediaType) << '\n');
    return isKnown;
}

// 33 bytes and the name.
void MakeMediaHandlerAtom(Tolbin::utility::BinaryDataArray& outAtom, MediaType inMediaType)
{
    std::string_view name;
    if (IsKnownMediaType(inMediaType))
    {
        name = GetHardCodedMediaHandlerName(inMediaType);
    }
    qtn_MediaHandlerAtom handler;
    handler.header = qtn_GenericAtomHeader(Low32(sizeof(handler) + name.size()), FourCC("hdlr"));
    handler.componentSubtype = MediaTypeToComponentSubtype(inMediaType);
    handler.componentManufacturer = GetMediaHandlerComponentManufacturer(inMediaType);
    handler.componentFlags = GetMediaHandlerComponentFlags(inMediaType);
    handler.componentFlagsMask = GetMediaHandlerComponentFlagsMask(inMediaType);
    handler.nameLength = static_cast<std::uint8_t>(name.size()); // At most 34.
    ReplaceWithRecord(outAtom, handler);
    outAtom.insert(outAtom.end(), name.begin(), name.end());
}

void MakeSelfReferencingDataHandlerAtom(qtn_CanonicalDataHandlerAtom& outHandler, qtn_OneDataRef& outDataInfo)
{
    outHandler = qtn_CanonicalDataHandlerAtom{};
    outDataInfo = qtn_OneDataRef{};
}

// ---- Time -----------------------------------------------------------------------------------------------------------

std::int32_t ConvertSrcTimeToDestTimescale(std::int32_t inSrcTime, std::int32_t inSrcTimeScale,
                                           std::int32_t inDestTimeScale)
{
    TOLBIN_ASSERT(inSrcTimeScale != 0, "");
    if (inSrcTimeScale == 0)
    {
        return 0;
    }
    const auto result = static_cast<std::uint64_t>(std::int64_t{inSrcTime} * inDestTimeScale / inSrcTimeScale);
    TOLBIN_ASSERT((result & 0xFFFFFFFF80000000LL) == 0,
                  "Signed 32-bit overflow in ConvertSrcTimeToDestTimescale.  Do not ignore this problem.  The file is "
                  "being written in an invalid state.\n");
    return static_cast<std::int32_t>(Low32(result));
}

// ---- Headers --------------------------------------------------------------------------------------------------------

void MakeMovieHeader(qtn_MovieHeaderAtom& outAtom, int inTimeScale, int inDuration, int inTrackCount, std::tm& inDate)
{
    outAtom = qtn_MovieHeaderAtom{};
    outAtom.creationTime = HeaderTime(inDate);
    outAtom.modificationTime = outAtom.creationTime;
    outAtom.timeScale = Bits32(inTimeScale);
    outAtom.duration = Bits32(inDuration);
    outAtom.nextTrackID = Bits32(inTrackCount) + 1;
}

void MakeTrackHeaderAtom(qtn_TrackHeaderAtom& outAtom, int inMovieTimeScale, int inMediaTimeScale, int inTrackID,
                         MediaType inMediaType, int inWidth, int inHeight, int inMediaDuration, int inTrimIn,
                         std::tm& inDate)
{
    // The sum wraps as the 32-bit field it ends in would.
    const auto duration = static_cast<std::int32_t>(Bits32(inMediaDuration) + Bits32(inTrimIn));
    outAtom = qtn_TrackHeaderAtom{};
    outAtom.versionAndFlags = TrackHeaderFlags(inMediaType);
    outAtom.creationTime = HeaderTime(inDate);
    outAtom.modificationTime = outAtom.creationTime;
    outAtom.trackID = Bits32(inTrackID);
    outAtom.duration = Bits32(ConvertSrcTimeToDestTimescale(duration, inMediaTimeScale, inMovieTimeScale));
    outAtom.volume = inMediaType == kQTMediaTypeSound ? kShortFixedOne : 0;
    outAtom.trackWidth = WholePixels(Bits32(inWidth));
    outAtom.trackHeight = WholePixels(Bits32(inHeight));
}

void MakeMediaHeaderAtom(qtn_MediaHeaderAtom& outAtom, int inTimeScale, int inDuration, std::tm& inDate)
{
    outAtom = qtn_MediaHeaderAtom{};
    outAtom.creationTime = HeaderTime(inDate);
    outAtom.modificationTime = outAtom.creationTime;
    outAtom.timeScale = Bits32(inTimeScale);
    outAtom.duration = Bits32(inDuration);
}

// 24 bytes, [12: an empty edit as long as the trim-in], 12: the media.
void MakeEditsAtom(Tolbin::utility::BinaryDataArray& outAtom, int inMovieTimeScale, int inMediaTimeScale,
                   int inMediaDuration, int inTrimIn)
{
    constexpr std::int32_t kEmptyEdit = -1;
    const auto toMovieTime = [&](int inTime) {
        return Bits32(ConvertSrcTimeToDestTimescale(inTime, inMediaTimeScale, inMovieTimeScale));
    };
    const bool hasTrimIn = inTrimIn > 0;
    qtn_EditsAtom edits;
    edits.entryCount = hasTrimIn ? 2 : 1;
    const std::uint32_t size = Low32(sizeof(qtn_EditsAtom) + edits.entryCount * sizeof(qtn_EditListEntry));
    edits.header = qtn_GenericAtomHeader(size, FourCC("edts"));
    edits.list = qtn_GenericAtomHeader(size - kAtomHeaderSize, FourCC("elst"));
    ReplaceWithRecord(outAtom, edits);
    if (hasTrimIn)
    {
        AppendRecord(outAtom, qtn_EditListEntry{toMovieTime(inTrimIn), kEmptyEdit});
    }
    AppendRecord(outAtom, qtn_EditListEntry{toMovieTime(inMediaDuration), 0});
}

// ---- Media information and apertures --------------------------------------------------------------------------------

void MakeMediaSpecificMediaInfoHeaderAtom(Tolbin::utility::BinaryDataArray& outAtom, MediaType inMediaType)
{
    qtn_GenericMediaInfoAtom generic;
    qtn_TimecodeMediaInfoAtom timecode;
    qtn_TextMediaInfoAtom text;
    std::vector<qtn_GenericAtomHeader*> children{&generic.header};
    switch (inMediaType)
    {
    case kQTMediaTypeVideo:
        ReplaceWithRecord(outAtom, qtn_VideoMediaInfoHeaderAtom{});
        return;
    case kQTMediaTypeSound:
        ReplaceWithRecord(outAtom, qtn_SoundMediaInfoHeaderAtom{});
        return;
    case kQTMediaTypeTimecode:
        children.push_back(&timecode.header);
        break;
    case kQTMediaTypeClosedCaption:
        break;
    case kQTMediaTypeText:
        children.push_back(&text.header);
        break;
    default:
        TOLBIN_REPORT("false", "Unimplemented Media Type: " << static_cast<std::uint32_t>(inMediaType) << '\n');
        return;
    }
    ConcatenateAtomsToAtomContainer(FourCC("gmhd"), children, outAtom);
}

// 'clef' is the clean aperture and 'prof' the whole frame, both scaled to square pixels in width; 'enof' is the frame
// as it is encoded.
void MakeOptionalTrackApertureAtom(boost::shared_ptr<QTSampleDescription> inDescription, MediaType inMediaType,
                                   Tolbin::utility::BinaryDataArray& outAtom)
{
    if (inMediaType != kQTMediaTypeVideo)
    {
        return;
    }
    const auto image = boost::dynamic_pointer_cast<QTImageDescription>(inDescription);
    if (!image)
    {
        return;
    }
    unsigned int widthN = 0, widthD = 0, heightN = 0, heightD = 0, horizOffD = 0, vertOffD = 0;
    int horizOffN = 0, vertOffN = 0;
    if (!image->GetCleanAperture(widthN, widthD, heightN, heightD, horizOffN, horizOffD, vertOffN, vertOffD))
    {
        return;
    }
    const Quorlan::PixelAspectRatio aspect = image->GetPixelAspect();
    const std::uint32_t numerator = aspect.GetNumerator();
    const std::uint32_t denominator = aspect.GetDenominator();
    if (numerator == denominator || numerator == 0 || denominator == 0 || widthD == 0 || heightD == 0)
    {
        return;
    }
    const std::int32_t width = image->GetDescriptionWidth();
    const std::uint32_t height = WholePixels(Bits32(image->GetDescriptionHeight()));
    const double cleanWidth = static_cast<double>(widthN) * numerator / widthD / denominator;
    const double productionWidth = static_cast<double>(width) * numerator / denominator;

    auto clef = MakeApertureDimensions(FourCC("clef"), FixedPixels(cleanWidth), WholePixels(heightN / heightD));
    auto prof = MakeApertureDimensions(FourCC("prof"), FixedPixels(productionWidth), height);
    auto enof = MakeApertureDimensions(FourCC("enof"), WholePixels(Bits32(width)), height);
    std::vector<qtn_GenericAtomHeader*> children{&clef.header, &prof.header, &enof.header};
    ConcatenateAtomsToAtomContainer(FourCC("tapt"), children, outAtom);
}

// ---- References and user data ---------------------------------------------------------------------------------------

// For each type an atom of 8 bytes and a 32-bit track number for each reference.
void MakeTrackReferencesAtom(Tolbin::utility::BinaryDataArray& outAtom,
                             std::map<TrackReferenceType, std::vector<TrackID>>& inReferences,
                             std::map<TrackID, int>& inTrackNumbers)
{
    std::vector<Tolbin::utility::BinaryDataArray> entries;
    for (const auto& [type, trackIDs] : inReferences)
    {
        Tolbin::utility::BinaryDataArray& entry = entries.emplace_back();
        const std::size_t size = kAtomHeaderSize + sizeof(big_int32_t) * trackIDs.size();
        entry.reserve(size);
        AppendRecord(entry, qtn_GenericAtomHeader(Low32(size), TrackReferenceTypeToReferenceTypeFourCC(type)));
        for (const TrackID trackID : trackIDs)
        {
            const auto found = inTrackNumbers.find(trackID);
            AppendRecord(entry, big_int32_t(found != inTrackNumbers.end() ? found->second : 0));
        }
    }
    std::vector<qtn_GenericAtomHeader*> children;
    std::transform(entries.begin(), entries.end(), std::back_inserter(children), AtomHeader);
    ConcatenateAtomsToAtomContainer(FourCC("tref"), children, outAtom);
}

void MakeUserDataAtom(Tolbin::utility::BinaryDataArray& outAtom,
                      std::map<int, Tolbin::utility::BinaryDataArray>& inItems)
{
    std::vector<Tolbin::utility::BinaryDataArray> items;
    for (const auto& [type, payload] : inItems)
    {
        Tolbin::utility::BinaryDataArray& item = items.emplace_back();
        item.reserve(kAtomHeaderSize + payload.size());
        AppendRecord(item, qtn_GenericAtomHeader(Low32(kAtomHeaderSize + payload.size()), Bits32(type)));
        item.insert(item.end(), payload.begin(), payload.end());
    }
    std::vector<qtn_GenericAtomHeader*> children;
    std::transform(items.begin(), items.end(), std::back_inserter(children), AtomHeader);
    ConcatenateAtomsToAtomContainer(FourCC("udta"), children, outAtom);
}

// ---- Sample tables --------------------------------------------------------------------------------------------------

Tolbin::Result MakeSampleTableItems(TrackRec& track, SampleTableItemsRec& items)
{
    items = SampleTableItemsRec{};
    const SampleTables tables(track);
    const Tolbin::Result result = tables.GetResult();
    if (result < 0)
    {
        return result;
    }
    TOLBIN_ASSERT_AS(!track.samples.empty(), "chunkOffsets.size()", __PRETTY_FUNCTION__, "");
    TOLBIN_ASSERT_AS(!track.samples.empty(), "sampleToChunkTable.size()", __PRETTY_FUNCTION__, "");
    SampleTables::Places places{};
    places.sampleSize = AllocateAtom(tables.GetSampleSizeSize(), items.sampleSizeAtom);
    places.timeToSample = AllocateAtom(tables.GetTimeToSampleSize(), items.timeToSampleAtom);
    places.chunkOffset = tables.Needs64Bits() ? AllocateAtom(tables.GetChunkOffsetSize(), items.chunkOffset64Atom)
                                              : AllocateAtom(tables.GetChunkOffsetSize(), items.chunkOffsetAtom);
    places.sampleToChunk = AllocateAtom(tables.GetSampleToChunkSize(), items.sampleToChunkAtom);
    tables.Write(places);
    return result;
}

void PushSampleTableItemsToAtomVector(std::vector<qtn_GenericAtomHeader*>& atoms, SampleTableItemsRec items)
{
    atoms.insert(atoms.end(), {AsGeneric(items.timeToSampleAtom), AsGeneric(items.sampleToChunkAtom),
                               AsGeneric(items.sampleSizeAtom), AsGeneric(items.chunkOffsetAtom),
                               AsGeneric(items.chunkOffset64Atom), items.spare1, items.spare2, items.spare3});
}

void DisposeSampleTableItems(SampleTableItemsRec& items)
{
    const auto dispose = [](auto* inAtom) { delete[] reinterpret_cast<std::uint8_t*>(inAtom); };
    dispose(items.sampleSizeAtom);
    dispose(items.timeToSampleAtom);
    dispose(items.spare1);
    dispose(items.sampleToChunkAtom);
    dispose(items.chunkOffsetAtom);
    dispose(items.chunkOffset64Atom);
    dispose(items.spare2);
    dispose(items.spare3);
}

} // namespace QT
