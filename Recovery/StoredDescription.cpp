#include "StoredDescription.h"

#include "QTDiskTypes.h"

#include <boost/make_shared.hpp>

namespace QT
{

namespace
{

class PrivateStoredDescription final : public QTSampleDescription
{
public:
    explicit PrivateStoredDescription(const StoredDescription& inStored) : mEntry(inStored.entry) {}

    void GetAsBinary(Tolbin::utility::BinaryDataArray& outEntry) override { outEntry = mEntry; }

private:
    Tolbin::utility::BinaryDataArray mEntry;
};

//! Its bytes are fixed, so that its setters have nothing to set.
class PrivateStoredImageDescription final : public QTImageDescription
{
public:
    explicit PrivateStoredImageDescription(const StoredDescription& inStored)
        : mEntry(inStored.entry), mGeometry(*inStored.geometry)
    {
    }

    void GetAsBinary(Tolbin::utility::BinaryDataArray& outEntry) override { outEntry = mEntry; }

    bool GetCleanAperture(unsigned int& outWidthN, unsigned int& outWidthD, unsigned int& outHeightN,
                          unsigned int& outHeightD, int& outHorizOffN, unsigned int& outHorizOffD, int& outVertOffN,
                          unsigned int& outVertOffD) override
    {
        if (!mGeometry.aperture)
        {
            return false;
        }
        const StoredGeometry::CleanAperture& aperture = *mGeometry.aperture;
        outWidthN = aperture.widthN;
        outWidthD = aperture.widthD;
        outHeightN = aperture.heightN;
        outHeightD = aperture.heightD;
        outHorizOffN = aperture.horizOffN;
        outHorizOffD = aperture.horizOffD;
        outVertOffN = aperture.vertOffN;
        outVertOffD = aperture.vertOffD;
        return true;
    }

    Quorlan::PixelAspectRatio GetPixelAspect() override
    {
        return {mGeometry.aspectNumerator, mGeometry.aspectDenominator};
    }

    int GetDescriptionWidth() override { return mGeometry.width; }
    int GetDescriptionHeight() override { return mGeometry.height; }

    bool GetColorSpaceParameter(unsigned short&, unsigned short&, unsigned short&) override { return false; }
    void SetColorSpaceParameter(unsigned short, unsigned short, unsigned short) override {}
    void AddCleanAperture(unsigned int, unsigned int, unsigned int, unsigned int, int, unsigned int, int,
                          unsigned int) override
    {
    }
    void AddGamma(GammaValue) override {}
    void SetTemporalQuality(unsigned int) override {}
    void SetSpatialQuality(unsigned int) override {}
    void AddArbitraryImageDescriptionExtension(unsigned int, void*, int) override {}
    void SetImageDescriptionCodecFourCC(unsigned int) override {}
    void SetVendorFourCC(unsigned int) override {}
    void SetRevisionLevel(short) override {}
    void SetCodecName(Tolbin::UTF16String) override {}
    void SetShouldOmitFieldExtension(bool) override {}
    void SetExtraPaddingAmount(unsigned long) override {}

private:
    Tolbin::utility::BinaryDataArray mEntry;
    StoredGeometry mGeometry;
};

} // namespace

namespace
{

StoredGeometry StoreGeometry(QTImageDescription& inDescription)
{
    StoredGeometry geometry;
    geometry.width = inDescription.GetDescriptionWidth();
    geometry.height = inDescription.GetDescriptionHeight();
    const Quorlan::PixelAspectRatio aspect = inDescription.GetPixelAspect();
    geometry.aspectNumerator = aspect.GetNumerator();
    geometry.aspectDenominator = aspect.GetDenominator();
    StoredGeometry::CleanAperture aperture;
    if (inDescription.GetCleanAperture(aperture.widthN, aperture.widthD, aperture.heightN, aperture.heightD,
                                       aperture.horizOffN, aperture.horizOffD, aperture.vertOffN, aperture.vertOffD))
    {
        geometry.aperture = aperture;
    }
    return geometry;
}

} // namespace

StoredDescription StoreDescription(QTSampleDescription& inDescription) noexcept
{
    StoredDescription stored;
    try
    {
        if (auto* const image = dynamic_cast<QTImageDescription*>(&inDescription))
        {
            stored.geometry = StoreGeometry(*image);
        }
        inDescription.GetAsBinary(stored.entry);
    }
    catch (...)
    {
        stored.entry = {}; // As the writer's `Close`, which takes it for a failure of the track.
    }
    if (stored.entry.size() > kMaxAtomSize)
    {
        stored.entry = {};
    }
    return stored;
}

boost::shared_ptr<QTSampleDescription> MakeDescription(const StoredDescription& inStored)
{
    if (inStored.geometry)
    {
        return boost::make_shared<PrivateStoredImageDescription>(inStored);
    }
    return boost::make_shared<PrivateStoredDescription>(inStored);
}

} // namespace QT
