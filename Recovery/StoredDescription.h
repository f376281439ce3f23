#pragma once

#include <Quorlan/MediaTypes.h>
#include <Reelmill/QTSampleDescription.h>
#include <Tolbin/BinaryDataArray.h>

#include <boost/shared_ptr.hpp>

#include <cstdint>
#include <optional>

namespace QT
{

//! What the writer asks an image description beside its bytes.
struct StoredGeometry
{
    struct CleanAperture
    {
        unsigned int widthN = 0;
        unsigned int widthD = 0;
        unsigned int heightN = 0;
        unsigned int heightD = 0;
        int horizOffN = 0;
        unsigned int horizOffD = 0;
        int vertOffN = 0;
        unsigned int vertOffD = 0;

        bool operator==(const CleanAperture&) const = default;
    };

    int width = 0;
    int height = 0;
    unsigned int aspectNumerator = 0;
    unsigned int aspectDenominator = 0;
    std::optional<CleanAperture> aperture;

    bool operator==(const StoredGeometry&) const = default;
};

//! A sample description, frozen.
struct StoredDescription
{
    Tolbin::utility::BinaryDataArray entry; //!< Empty: it gave no bytes.
    std::optional<StoredGeometry> geometry; //!< Of image descriptions.

    bool operator==(const StoredDescription&) const = default;
};

//! An exception of the description counts as no bytes, and so do more than an atom can hold.
StoredDescription StoreDescription(QTSampleDescription& inDescription) noexcept;

//! A description that gives these answers, whatever it is told.
boost::shared_ptr<QTSampleDescription> MakeDescription(const StoredDescription& inStored);

} // namespace QT
