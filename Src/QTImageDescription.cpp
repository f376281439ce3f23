#include "QTAtomHelpers.h"

#include <Reelmill/QTSampleDescription.h>
#include <Tolbin/Debug.h>
#include <Tolbin/String.h>

#include <boost/make_shared.hpp>

#include <algorithm>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace QT
{

namespace
{

qtn_FieldAtom MakeFieldAtom(Quorlan::FieldType inFieldType)
{
    qtn_FieldAtom atom;
    if (inFieldType == Quorlan::kFieldTypeLowerFirst)
    {
        atom.fieldCount = 2;
        atom.fieldDetail = 9; // Bottom field displayed first, top field stored first.
    }
    else if (inFieldType == Quorlan::kFieldTypeUpperFirst)
    {
        atom.fieldCount = 2;
        atom.fieldDetail = 14; // Top field displayed first, bottom field stored first.
    }
    return atom;
}

} // namespace

class PrivateQTImageDescription final : public QTImageDescription
{
public:
    PrivateQTImageDescription(std::uint32_t inCodec, const Tolbin::UTF16String& inCodecName, std::int32_t inWidth,
                              std::int32_t inHeight, std::int32_t inDepth, Quorlan::FieldType inFieldType,
                              Quorlan::PixelAspectRatio inPixelAspect)
        : mCodec(inCodec),
          mCodecName(inCodecName),
          mWidth(inWidth),
          mHeight(inHeight),
          mDepth(inDepth),
          mFieldType(inFieldType),
          mPixelAspect(inPixelAspect)
    {
    }

    // The entry: 86 fixed bytes, the host's extensions, ['colr'], ['fiel'], 'pasp', ['clap'], ['gama'], padding.
    void GetAsBinary(Tolbin::utility::BinaryDataArray& outEntry) override
    {
        ReplaceWithRecord(outEntry, MakeFixedEntry());
        for (const Extension& extension : mExtensions)
        {
            const std::uint64_t size = sizeof(qtn_GenericAtomHeader) + extension.payload.size();
            AppendRecord(outEntry, qtn_GenericAtomHeader(Low32(size), extension.type));
            outEntry.insert(outEntry.end(), extension.payload.begin(), extension.payload.end());
        }
        if (mColor)
        {
            AppendRecord(outEntry, *mColor);
        }
        if (!mOmitsField)
        {
            AppendRecord(outEntry, MakeFieldAtom(mFieldType));
        }
        qtn_PixelAspectAtom pixelAspect;
        pixelAspect.horizontalSpacing = mPixelAspect.GetNumerator();
        pixelAspect.verticalSpacing = mPixelAspect.GetDenominator();
        AppendRecord(outEntry, pixelAspect);
        if (mCleanAperture)
        {
            AppendRecord(outEntry, *mCleanAperture);
        }
        if (mGamma != kQTGammaNone)
        {
            AppendRecord(outEntry, qtn_GammaAtom{});
        }
        outEntry.insert(outEntry.end(), mExtraPadding, 0);
        StoreRecord(outEntry, 0, big_uint32_t(Low32(outEntry.size())));
    }

    void SetColorSpaceParameter(unsigned short inPrimaries, unsigned short inTransferFunction,
                                unsigned short inMatrix) override
    {
        qtn_ColorParameterAtom& color = mColor.emplace();
        color.primaries = inPrimaries;
        color.transferFunction = inTransferFunction;
        color.matrix = inMatrix;
    }

    void AddCleanAperture(unsigned int inWidthN, unsigned int inWidthD, unsigned int inHeightN, unsigned int inHeightD,
                          int inHorizOffN, unsigned int inHorizOffD, int inVertOffN, unsigned int inVertOffD) override
    {
        qtn_CleanApertureAtom& aperture = mCleanAperture.emplace();
        aperture.widthN = inWidthN;
        aperture.widthD = inWidthD;
        aperture.heightN = inHeightN;
        aperture.heightD = inHeightD;
        aperture.horizOffN = inHorizOffN;
        aperture.horizOffD = inHorizOffD;
        aperture.vertOffN = inVertOffN;
        aperture.vertOffD = inVertOffD;
    }

    void AddGamma(GammaValue inGamma) override { mGamma = inGamma; }
    void SetTemporalQuality(unsigned int inQuality) override { mTemporalQuality = inQuality; }
    void SetSpatialQuality(unsigned int inQuality) override { mSpatialQuality = inQuality; }

    bool GetColorSpaceParameter(unsigned short& outPrimaries, unsigned short& outTransferFunction,
                                unsigned short& outMatrix) override
    {
        if (!mColor)
        {
            return false;
        }
        outPrimaries = mColor->primaries;
        outTransferFunction = mColor->transferFunction;
        outMatrix = mColor->matrix;
        return true;
    }

    bool GetCleanAperture(unsigned int& outWidthN, unsigned int& outWidthD, unsigned int& outHeightN,
                          unsigned int& outHeightD, int& outHorizOffN, unsigned int& outHorizOffD, int& outVertOffN,
                          unsigned int& outVertOffD) override
    {
        if (!mCleanAperture)
        {
            return false;
        }
        outWidthN = mCleanAperture->widthN;
        outWidthD = mCleanAperture->widthD;
        outHeightN = mCleanAperture->heightN;
        outHeightD = mCleanAperture->heightD;
        outHorizOffN = mCleanAperture->horizOffN;
        outHorizOffD = mCleanAperture->horizOffD;
        outVertOffN = mCleanAperture->vertOffN;
        outVertOffD = mCleanAperture->vertOffD;
        return true;
    }

    Quorlan::PixelAspectRatio GetPixelAspect() override { return mPixelAspect; }
    int GetDescriptionWidth() override { return mWidth; }
    int GetDescriptionHeight() override { return mHeight; }

    void AddArbitraryImageDescriptionExtension(unsigned int inType, void* inData, int inSize) override
    {
        if (inSize < 0 || (inData == nullptr && inSize > 0))
        {
            TOLBIN_REPORT("inSize >= 0 && (inData || !inSize)", "");
            return;
        }
        const auto* bytes = static_cast<const std::uint8_t*>(inData);
        mExtensions.push_back({inType, Tolbin::utility::BinaryDataArray(bytes, bytes + inSize)});
    }

    void SetImageDescriptionCodecFourCC(unsigned int inCodec) override { mCodec = inCodec; }
    void SetVendorFourCC(unsigned int inVendor) override { mVendor = inVendor; }
    void SetRevisionLevel(short inRevision) override { mRevisionLevel = inRevision; }
    void SetCodecName(Tolbin::UTF16String inName) override { mCodecName = std::move(inName); }
    void SetShouldOmitFieldExtension(bool inOmit) override { mOmitsField = inOmit; }
    void SetExtraPaddingAmount(unsigned long inSize) override { mExtraPadding = inSize; }

private:
    struct Extension
    {
        std::uint32_t type;
        Tolbin::utility::BinaryDataArray payload;
    };

    qtn_ImageDescription MakeFixedEntry() const
    {
        qtn_ImageDescription image;
        image.entry.header = qtn_GenericAtomHeader(sizeof(image), mCodec);
        image.revisionLevel = mRevisionLevel;
        image.vendor = mVendor;
        image.temporalQuality = mTemporalQuality;
        image.spatialQuality = mSpatialQuality;
        image.width = Low16(Bits32(mWidth));
        image.height = Low16(Bits32(mHeight));
        const std::string name = Tolbin::string::UTF16toStdString(mCodecName);
        const std::size_t nameLength = std::min(name.size(), sizeof(image.name));
        image.nameLength = static_cast<std::uint8_t>(nameLength); // At most 31.
        std::copy_n(name.begin(), nameLength, image.name);
        image.depth = Low16(Bits32(mDepth));
        return image;
    }

    std::uint32_t mCodec;
    Tolbin::UTF16String mCodecName;
    std::int32_t mWidth;  //!< Pixels.
    std::int32_t mHeight; //!< Pixels.
    std::int32_t mDepth;  //!< Bits per pixel.
    Quorlan::FieldType mFieldType;
    Quorlan::PixelAspectRatio mPixelAspect;
    std::uint32_t mTemporalQuality = 0;
    std::uint32_t mSpatialQuality = 1024;
    std::optional<qtn_ColorParameterAtom> mColor;
    std::optional<qtn_CleanApertureAtom> mCleanAperture;
    GammaValue mGamma = kQTGammaNone;
    std::uint32_t mVendor = FourCC("appl");
    std::int16_t mRevisionLevel = 0;
    bool mOmitsField = false;
    std::uint64_t mExtraPadding = 0; //!< Bytes.
    std::vector<Extension> mExtensions;
};

boost::shared_ptr<QTImageDescription> CreateImageDescription(int inCodec, Tolbin::UTF16String& inCodecName, int inWidth,
                                                             int inHeight, int inDepth, Quorlan::FieldType inFieldType,
                                                             Quorlan::PixelAspectRatio inPixelAspect)
{
    return boost::make_shared<PrivateQTImageDescription>(Bits32(inCodec), inCodecName, inWidth, inHeight, inDepth,
                                                         inFieldType, inPixelAspect);
}

} // namespace QT
