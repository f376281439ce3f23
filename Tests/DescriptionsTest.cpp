#include <Reelmill/QTSampleDescription.h>
#include <Tolbin/String.h>

#include "QTDiskTypes.h"
#include "Support/Bytes.h"
#include "Support/ReportCapture.h"

#include <string>

using Tolbin::utility::BinaryDataArray;

namespace
{

BinaryDataArray Entry(QT::QTSampleDescription& inDescription)
{
    BinaryDataArray entry = Bytes("EE*200");
    inDescription.GetAsBinary(entry);
    BinaryDataArray again;
    inDescription.GetAsBinary(again);
    EXPECT_EQ(entry, again) << "the same state gives the same bytes";
    return entry;
}

TEST(TextDescription, IsConstant)
{
    EXPECT_BYTES(Entry(*QT::CreateTextDescription()),
                 "00 00 00 3B 'text' 00*6 00 01 00*26 00 10 00 0D 00*4 00 0C 00*7");
}

TEST(ClosedCaptionDescription, IsConstant)
{
    EXPECT_BYTES(Entry(*QT::CreateClosedCaptionDescription()), "00 00 00 10 'c608' 00*6 00 01");
}

TEST(TimecodeDescription, StoresItsValues)
{
    const auto timecode = QT::CreateTimecodeDescription(30000, 1001, 30, true);
    EXPECT_BYTES(Entry(*timecode), "#34 'tmcd' 00*6 00 01 00*4 00 00 00 01 00 00 75 30 00 00 03 E9 1E 00");
    timecode->Init(-2, -3, 300, false);
    EXPECT_BYTES(Entry(*timecode), "#34 'tmcd' 00*6 00 01 00*4 00 00 00 00 FF FF FF FE FF FF FF FD 2C 00");
}

boost::shared_ptr<QT::QTImageDescription> Image(const std::string& inName = "Codec", int inWidth = 1920,
                                                int inFieldType = 0)
{
    Tolbin::UTF16String name = Tolbin::string::UTF8to16(inName);
    return QT::CreateImageDescription(static_cast<int>(QT::FourCC("apcn")), name, inWidth, 1080, 24,
                                      static_cast<Quorlan::FieldType>(inFieldType), {1, 1});
}

constexpr const char* kField = "00 00 00 0A 'fiel' 01 00 ";
constexpr const char* kAspect = "00 00 00 10 'pasp' #1 #1 ";

TEST(ImageDescription, DefaultsMatchTheTable)
{
    EXPECT_SAME_BYTES(Entry(*Image()),
                      Bytes("00 00 00 70 'apcn' 00*6 00 01 00 01 00 00 'appl' #0 #1024 07 80 04 38 00 48 00 00 "
                            "00 48 00 00 #0 00 01 05 'Codec' 00*26 00 18 FF FF") +
                          Bytes(kField) + Bytes(kAspect));
}

TEST(ImageDescription, EverySetterReachesItsField)
{
    Tolbin::UTF16String name = u"old";
    const auto image =
        QT::CreateImageDescription(static_cast<int>(QT::FourCC("old ")), name, 70000, -1, 65568,
                                   Quorlan::kFieldTypeUpperFirst, Quorlan::PixelAspectRatio(0xFFFFFFFF, 33));
    image->SetImageDescriptionCodecFourCC(QT::FourCC("avc1"));
    image->SetCodecName(u"new");
    image->SetVendorFourCC(QT::FourCC("vend"));
    image->SetRevisionLevel(-2);
    image->SetTemporalQuality(0x01020304);
    image->SetSpatialQuality(0x05060708);
    image->SetColorSpaceParameter(0x0102, 0x0304, 0x0506);
    image->AddCleanAperture(9, 9, 9, 9, 9, 9, 9, 9);
    image->AddCleanAperture(1888, 1, 1062, 2, -3, 4, -5, 0xFFFFFFFF);
    image->AddGamma(QT::kQTGamma22);
    image->SetExtraPaddingAmount(4);
    BinaryDataArray longer = Bytes("AA*30");
    BinaryDataArray shorter = Bytes("BB*12");
    image->AddArbitraryImageDescriptionExtension(QT::FourCC("avcC"), longer.data(), 30);
    image->AddArbitraryImageDescriptionExtension(QT::FourCC("avcC"), shorter.data(), 12);
    image->AddArbitraryImageDescriptionExtension(QT::FourCC("none"), nullptr, 0);
    longer.assign(30, 0);
    EXPECT_BYTES(Entry(*image),
                 "#252 'avc1' 00*6 00 01 00 01 FF FE 'vend' 01 02 03 04 05 06 07 08 11 70 FF FF 00 48 00 00 "
                 "00 48 00 00 #0 00 01 03 'new' 00*28 00 20 FF FF "
                 "#38 'avcC' AA*30 #20 'avcC' BB*12 #8 'none' "
                 "00 00 00 12 'colr' 'nclc' 01 02 03 04 05 06 "
                 "#10 'fiel' 02 0E "
                 "#16 'pasp' FF FF FF FF #33 "
                 "00 00 00 28 'clap' #1888 #1 #1062 #2 FF FF FF FD #4 FF FF FF FB FF FF FF FF "
                 "00 00 00 0C 'gama' 00 02 33 33 00*4");
    EXPECT_EQ(image->GetDescriptionWidth(), 70000) << "not cut to 16 bits";
    EXPECT_EQ(image->GetDescriptionHeight(), -1);
    EXPECT_EQ(image->GetPixelAspect().GetNumerator(), 0xFFFFFFFFu);
    EXPECT_EQ(image->GetPixelAspect().GetDenominator(), 33u);
}

TEST(ImageDescription, ExtensionsAreOptionalOneByOne)
{
    const auto tail = [](QT::QTImageDescription& inImage) {
        const BinaryDataArray entry = Entry(inImage);
        EXPECT_EQ(Big32(entry, 0), entry.size());
        return BinaryDataArray(entry.begin() + 86, entry.end());
    };
    EXPECT_BYTES(tail(*Image("", 1, 1)), "#10 'fiel' 02 09 #16 'pasp' #1 #1");
    EXPECT_BYTES(tail(*Image("", 1, 3)), "#10 'fiel' 01 00 #16 'pasp' #1 #1");
    const auto image = Image();
    image->SetShouldOmitFieldExtension(true);
    EXPECT_BYTES(tail(*image), "#16 'pasp' #1 #1");
    image->AddGamma(static_cast<QT::GammaValue>(7));
    EXPECT_BYTES(tail(*image), "#16 'pasp' #1 #1 #12 'gama' 00 02 33 33");
    image->AddGamma(QT::kQTGammaNone);
    image->SetShouldOmitFieldExtension(false);
    EXPECT_SAME_BYTES(tail(*image), Bytes(kField) + Bytes(kAspect));
}

TEST(ImageDescription, CodecNameIsCutAfter31Bytes)
{
    const auto name = [](const std::string& inName) {
        const BinaryDataArray entry = Entry(*Image(inName));
        return BinaryDataArray(entry.begin() + 50, entry.begin() + 82);
    };
    EXPECT_BYTES(name(""), "00*32");
    EXPECT_BYTES(name(std::string(31, 'x')), "1F 78*31");
    EXPECT_BYTES(name(std::string(40, 'x')), "1F 78*31");
    EXPECT_BYTES(name(std::string(30, 'x') + "\u00E9"), "1F 78*30 C3") << "even inside a character";
    EXPECT_BYTES(name("\U0001F3AC"), "04 F0 9F 8E AC 00*27");
}

TEST(ImageDescription, RefusesAnExtensionThatCannotBe)
{
    ReportCapture reports;
    const auto image = Image();
    const BinaryDataArray before = Entry(*image);
    char byte = 0;
    image->AddArbitraryImageDescriptionExtension(QT::FourCC("none"), &byte, -1);
    image->AddArbitraryImageDescriptionExtension(QT::FourCC("none"), nullptr, 1);
    EXPECT_EQ(reports.Take().size(), 2u);
    EXPECT_SAME_BYTES(Entry(*image), before);
}

TEST(ImageDescription, QueriesLeaveTheirArgumentsAloneUntilSet)
{
    const auto image = Image();
    unsigned short color[3] = {1, 2, 3};
    unsigned int widthN = 1, widthD = 2, heightN = 3, heightD = 4, horizOffD = 6, vertOffD = 8;
    int horizOffN = 5, vertOffN = 7;
    const auto aperture = [&] {
        const bool found =
            image->GetCleanAperture(widthN, widthD, heightN, heightD, horizOffN, horizOffD, vertOffN, vertOffD);
        return std::vector<std::int64_t>{found,     widthN,    widthD,   heightN, heightD,
                                         horizOffN, horizOffD, vertOffN, vertOffD};
    };
    EXPECT_FALSE(image->GetColorSpaceParameter(color[0], color[1], color[2]));
    EXPECT_EQ(color[0] * 100 + color[1] * 10 + color[2], 123);
    EXPECT_EQ(aperture(), (std::vector<std::int64_t>{0, 1, 2, 3, 4, 5, 6, 7, 8}));

    image->SetColorSpaceParameter(9, 16, 8);
    image->AddCleanAperture(1888, 1, 1062, 1, 0, 1, -2, 1);
    EXPECT_TRUE(image->GetColorSpaceParameter(color[0], color[1], color[2]));
    EXPECT_EQ(color[0] * 10000 + color[1] * 100 + color[2], 91608);
    EXPECT_EQ(aperture(), (std::vector<std::int64_t>{1, 1888, 1, 1062, 1, 0, 1, -2, 1}));
}

} // namespace
