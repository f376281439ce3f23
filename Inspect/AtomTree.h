#pragma once

#include "ByteSource.h"
#include "Findings.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Inspect
{

//! A four-character code from its characters, the first in the most significant byte.
constexpr std::uint32_t FourCC(const char (&inText)[5])
{
    std::uint32_t code = 0;
    for (int i = 0; i < 4; ++i)
    {
        code = (code << 8) | static_cast<unsigned char>(inText[i]);
    }
    return code;
}

//! The code's characters in quotes, bytes outside printable ASCII as \xNN.
std::string FourCCText(std::uint32_t inCode);

//! One atom and where it lies. Its payload stays in the file.
struct Atom
{
    std::uint32_t type = 0;
    std::uint64_t offset = 0;     //!< Of its header, in the file.
    std::uint64_t size = 0;       //!< Of the whole atom.
    std::uint32_t headerSize = 0; //!< 8, or 16 with a 64-bit size.
    std::vector<Atom> children;   //!< Of known containers only.

    std::uint64_t GetPayloadOffset() const { return offset + headerSize; }
    std::uint64_t GetPayloadSize() const { return size - headerSize; }
    std::uint64_t GetEnd() const { return offset + size; }

    //! The first child of a type, or null.
    const Atom* Find(std::uint32_t inType) const;
};

//! Reads the atoms of a QuickTime or ISO base-media file: 32- and 64-bit sizes, size 0 up to the end, unknown types
//! kept as leaves. Malformed atoms become findings; what can be read around them is kept. Never reads media.
class AtomTree
{
public:
    AtomTree(const ByteSource& inSource, Findings& ioFindings);

    const std::vector<Atom>& GetAtoms() const { return mAtoms; }

    //! The first top-level atom of a type, or null.
    const Atom* Find(std::uint32_t inType) const;

    //! Reads the atoms that fill a range of the file, such as the extensions of a sample description. Zero bytes at the
    //! end are padding.
    std::vector<Atom> ReadRange(std::uint64_t inBegin, std::uint64_t inEnd);

    //! An atom's payload. An atom whose payload is larger than `inLimit` becomes a finding and gives nothing.
    std::vector<std::uint8_t> ReadPayload(const Atom& inAtom, std::uint64_t inLimit);

    //! The first bytes of an atom's payload, at most `inCount`. Once the file has been asked for more than any movie's
    //! description needs, that becomes a finding and nothing is given any more: a sparse file costs its maker nothing.
    std::vector<std::uint8_t> ReadFront(const Atom& inAtom, std::uint64_t inCount);

private:
    enum class Level
    {
        kTop, //!< An atom of size 0 runs to the end of the file.
        kContainer,
        kUserData, //!< A 32-bit zero may end the list.
        kExtensions
    };

    void ReadAtoms(std::uint64_t inBegin, std::uint64_t inEnd, Level inLevel, unsigned int inDepth,
                   std::vector<Atom>& outAtoms);
    bool ReadHeader(std::uint64_t inOffset, std::uint64_t inEnd, Level inLevel, Atom& outAtom);
    void ReadChildren(Atom& ioAtom, unsigned int inDepth);
    bool IsZero(std::uint64_t inBegin, std::uint64_t inEnd) const;

    const ByteSource& mSource;
    Findings& mFindings;
    std::vector<Atom> mAtoms;
    std::uint64_t mAtomCount = 0;
    std::uint64_t mPayloadRead = 0; //!< Bytes of payload that were asked for.
};

} // namespace Inspect
