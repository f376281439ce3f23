#include <Reelmill/Reelmill.h>

#include <iostream>
#include <vector>

int main()
{
    std::vector<unsigned char> grey(320 * 180 * 2, 128);
    Tolbin::UTF16String codecName = u"Uncompressed 4:2:2";
    const auto description = QT::CreateImageDescription(0x32767579 /* '2vuy' */, codecName, 320, 180, 24,
                                                        Quorlan::kFieldTypeProgressive, {1, 1});
    const auto movie = QT::CreateReelmill();
    QT::TrackID track = 0;
    Tolbin::Result result = movie->Create(u"grey.mov", 25);
    if (result >= 0)
        result = movie->NewMovieTrack(QT::kQTMediaTypeVideo, 25, 320, 180, description, track);
    for (int frame = 0; frame < 25 && result >= 0; ++frame)
        result = movie->AddMediaSample(track, grey.data(), static_cast<int>(grey.size()), 1, 1, 0, false);
    if (result >= 0)
        result = movie->Close();
    if (result < 0)
        std::cerr << "grey.mov: " << Tolbin::ResultMessage(result) << '\n';
    return result < 0 ? 1 : 0;
}
