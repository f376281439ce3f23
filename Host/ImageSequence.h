#pragma once

#include "LibAV.h"

#include <Picture.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace Host
{

//! The images that a pattern such as frame%04d.png names, or those of a single file; each becomes a sample. libavformat
//! ends a sequence in silence at an image that it cannot read, and takes images of any size; this sees to it that all
//! come and are alike.
class ImageSequence
{
public:
    //! Whether the file name holds a number pattern, and there is no file of exactly that name.
    static bool IsNamedBy(const std::string& inPath);

    //! The images in the order of their numbers. Throws CommandError when the folder cannot be read.
    static std::vector<std::string> ListFiles(const std::string& inPath);

    //! Lists the images of a pattern. Throws CommandError when the folder cannot be read, there are none, or a number is
    //! missing.
    explicit ImageSequence(const std::string& inPath);

    long long GetFirstNumber() const { return mFirstNumber; }

    //! Looks at the head and the end of every image, and at nothing of its pixels. Throws CommandError with the name of
    //! the first that is empty, a folder, cut off, or of another codec, size or pixel form than those before it
    //! (`kInputRefused`), or cannot be read (`kIOFailed`). Of codecs whose heads are not known only the files are tried,
    //! and of a single file nothing is, for it is read from its first byte on anyway.
    void CheckFiles(AVCodecID inCodec);

    //! Checks the next image as it was read; it may have changed meanwhile. Throws likewise.
    void CheckNext(std::span<const std::uint8_t> inBytes);

    //! To be called where no more comes, with libav's reason. Throws EarlyEnd when images are missing.
    void CheckEnd(int inError) const;

private:
    void Check(const std::string& inFile, const Inspect::ByteSource& inBytes);

    std::vector<std::string> mFiles;
    bool mIsNumbered = false;
    long long mFirstNumber = 0;
    std::size_t mNext = 0;     //!< The image that comes next.
    std::uint32_t mFormat = 0; //!< Of its sample description; 0 when its heads are not known.
    std::string mCodecName;
    std::optional<Inspect::Picture> mModel; //!< The first, which the others are like.
};

} // namespace Host
