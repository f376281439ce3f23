#include "AtomTree.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>

namespace Inspect
{

namespace
{

constexpr unsigned int kMaxDepth = 24;               //!< Far beyond what the format nests.
constexpr std::uint64_t kMaxAtomCount = 1'000'000;   //!< Keeps memory in bounds for files made of empty atoms.
constexpr std::uint64_t kMaxPayloadRead = 1u << 29;  //!< Tables for a hundred million samples.
constexpr std::uint64_t kMaxZeroPadding = 64u << 20; //!< Beyond, padding is not looked at.

//! Where the children of a container begin in its payload; -1 for atoms that hold none.
int ChildrenOffset(std::uint32_t inType)
{
    switch (inType)
    {
    case FourCC("moov"):
    case FourCC("trak"):
    case FourCC("edts"):
    case FourCC("mdia"):
    case FourCC("minf"):
    case FourCC("dinf"):
    case FourCC("stbl"):
    case FourCC("tref"):
    case FourCC("udta"):
    case FourCC("tapt"):
    case FourCC("gmhd"):
    case FourCC("mvex"):
    case FourCC("moof"):
    case FourCC("traf"):
    case FourCC("wave"):
    case FourCC("ilst"):
        return 0;
    case FourCC("dref"):
    case FourCC("stsd"):
        return 8; // Version, flags and the number of entries.
    default:
        return -1;
    }
}

const Atom* FindIn(const std::vector<Atom>& inAtoms, std::uint32_t inType)
{
    const auto found =
        std::find_if(inAtoms.begin(), inAtoms.end(), [inType](const Atom& inAtom) { return inAtom.type == inType; });
    return found != inAtoms.end() ? &*found : nullptr;
}

bool IsPrintable(std::uint32_t inType)
{
    for (int shift = 0; shift < 32; shift += 8)
    {
        const std::uint32_t byte = inType >> shift & 0xFF;
        if (byte < 0x20 || byte == 0x7F)
        {
            return false;
        }
    }
    return true;
}

} // namespace

std::string FourCCText(std::uint32_t inCode)
{
    std::string text = "'";
    for (int shift = 24; shift >= 0; shift -= 8)
    {
        const auto byte = static_cast<unsigned char>(inCode >> shift);
        text += byte >= 0x20 && byte < 0x7F ? std::string(1, static_cast<char>(byte)) : fmt::format("\\x{:02X}", byte);
    }
    return text + "'";
}

const Atom* Atom::Find(std::uint32_t inType) const
{
    return FindIn(children, inType);
}

AtomTree::AtomTree(const ByteSource& inSource, Findings& ioFindings) : mSource(inSource), mFindings(ioFindings)
{
    ReadAtoms(0, mSource.GetSize(), Level::kTop, 0, mAtoms);
}

const Atom* AtomTree::Find(std::uint32_t inType) const
{
    return FindIn(mAtoms, inType);
}

std::vector<Atom> AtomTree::ReadRange(std::uint64_t inBegin, std::uint64_t inEnd)
{
    std::vector<Atom> atoms;
    ReadAtoms(inBegin, inEnd, Level::kExtensions, 0, atoms);
    return atoms;
}

std::vector<std::uint8_t> AtomTree::ReadPayload(const Atom& inAtom, std::uint64_t inLimit)
{
    if (inAtom.GetPayloadSize() > inLimit)
    {
        mFindings.Add(Severity::kError, "payload-limit", inAtom.offset, 0,
                      fmt::format("{} holds {} bytes, more than such an atom can need", FourCCText(inAtom.type),
                                  inAtom.GetPayloadSize()));
        return {};
    }
    return ReadFront(inAtom, inLimit);
}

std::vector<std::uint8_t> AtomTree::ReadFront(const Atom& inAtom, std::uint64_t inCount)
{
    const std::uint64_t count = std::min(inCount, inAtom.GetPayloadSize());
    if (count > kMaxPayloadRead - mPayloadRead)
    {
        mFindings.Add(Severity::kError, "payload-limit", inAtom.offset, 0,
                      fmt::format("{} and what was read before it hold more than {} bytes; it is not read",
                                  FourCCText(inAtom.type), kMaxPayloadRead));
        return {};
    }
    mPayloadRead += count;
    std::vector<std::uint8_t> bytes(count);
    bytes.resize(mSource.Read(inAtom.GetPayloadOffset(), bytes));
    return bytes;
}

void AtomTree::ReadAtoms(std::uint64_t inBegin, std::uint64_t inEnd, Level inLevel, unsigned int inDepth,
                         std::vector<Atom>& outAtoms)
{
    std::uint64_t offset = inBegin;
    while (inEnd - offset >= 8)
    {
        if (mAtomCount == kMaxAtomCount)
        {
            mFindings.Add(Severity::kError, "atom-count", offset, 0,
                          fmt::format("the file has more than {} atoms; the rest is not read", kMaxAtomCount));
            ++mAtomCount; // Said once.
        }
        if (mAtomCount > kMaxAtomCount)
        {
            return;
        }
        Atom atom;
        if (!ReadHeader(offset, inEnd, inLevel, atom))
        {
            return; // Nothing behind it can be told apart.
        }
        ++mAtomCount;
        offset = atom.GetEnd();
        ReadChildren(atom, inDepth);
        outAtoms.push_back(std::move(atom));
    }
    const bool mayEndInZeros = inLevel == Level::kUserData || inLevel == Level::kExtensions;
    if (offset != inEnd && !(mayEndInZeros && IsZero(offset, inEnd)))
    {
        mFindings.Add(Severity::kError, "trailing-bytes", offset, 0,
                      fmt::format("{} bytes behind the last atom are too few for another", inEnd - offset));
    }
}

bool AtomTree::ReadHeader(std::uint64_t inOffset, std::uint64_t inEnd, Level inLevel, Atom& outAtom)
{
    std::array<std::uint8_t, 16> bytes{};
    const std::size_t available =
        mSource.Read(inOffset, std::span(bytes).first(std::min<std::uint64_t>(16, inEnd - inOffset)));
    ByteReader reader(std::span<const std::uint8_t>(bytes).first(available));
    outAtom.offset = inOffset;
    outAtom.size = reader.U32();
    outAtom.type = reader.U32();
    outAtom.headerSize = 8;
    if (inLevel == Level::kTop && !IsPrintable(outAtom.type))
    {
        // No atom but what somebody left at the end: zeros, or media behind an 'mdat' that was never finished.
        const bool isZero = outAtom.size == 0 && outAtom.type == 0;
        mFindings.Add(Severity::kError, isZero ? CheckName("trailing-bytes") : CheckName("atom-type"), inOffset, 0,
                      isZero ? fmt::format("{} bytes behind the last atom are no atom", inEnd - inOffset)
                             : fmt::format("{} is no type of an atom; the file is not read any further",
                                           FourCCText(outAtom.type)));
        return false;
    }
    if (outAtom.size == 0)
    {
        const bool mayEndInZeros = inLevel == Level::kUserData || inLevel == Level::kExtensions;
        if (mayEndInZeros && IsZero(inOffset, inEnd))
        {
            return false;
        }
        outAtom.size = inEnd - inOffset;
        if (inLevel != Level::kTop)
        {
            mFindings.Add(
                Severity::kError, "atom-size", inOffset, 0,
                fmt::format("{} has size 0, which is allowed at the top level only", FourCCText(outAtom.type)));
            return false;
        }
        return true;
    }
    if (outAtom.size == 1)
    {
        outAtom.size = reader.U64();
        outAtom.headerSize = 16;
    }
    const std::uint64_t room = inEnd - inOffset;
    if (reader.HasFailed() || outAtom.size < outAtom.headerSize)
    {
        mFindings.Add(Severity::kError, "atom-size", inOffset, 0,
                      fmt::format("{} says that it has {} bytes, which is less than its own header",
                                  FourCCText(outAtom.type), outAtom.size));
        return false;
    }
    if (outAtom.size > room)
    {
        mFindings.Add(Severity::kError, "atom-size", inOffset, 0,
                      fmt::format("{} says that it has {} bytes, but only {} are left {}", FourCCText(outAtom.type),
                                  outAtom.size, room,
                                  inLevel == Level::kTop ? "in the file" : "in the atom around it"));
        if (inLevel != Level::kTop)
        {
            return false;
        }
        outAtom.size = room; // Cut off: what is there can still be looked at.
    }
    return true;
}

void AtomTree::ReadChildren(Atom& ioAtom, unsigned int inDepth)
{
    int childrenOffset = ChildrenOffset(ioAtom.type);
    if (ioAtom.type == FourCC("meta"))
    {
        // The ISO form has version and flags in front of its children, the QuickTime form has not.
        std::array<std::uint8_t, 8> bytes{};
        const std::size_t available = mSource.Read(ioAtom.GetPayloadOffset(), bytes);
        ByteReader reader(std::span<const std::uint8_t>(bytes).first(available));
        reader.Skip(4);
        childrenOffset = reader.U32() == FourCC("hdlr") ? 0 : 4;
    }
    if (childrenOffset < 0 || ioAtom.GetPayloadSize() < static_cast<std::uint64_t>(childrenOffset))
    {
        return;
    }
    if (inDepth == kMaxDepth)
    {
        mFindings.Add(Severity::kError, "atom-depth", ioAtom.offset, 0,
                      fmt::format("atoms are nested more than {} deep; the rest is not read", kMaxDepth));
        return;
    }
    const Level level = ioAtom.type == FourCC("udta")   ? Level::kUserData
                        : ioAtom.type == FourCC("wave") ? Level::kExtensions
                                                        : Level::kContainer;
    ReadAtoms(ioAtom.GetPayloadOffset() + static_cast<std::uint64_t>(childrenOffset), ioAtom.GetEnd(), level,
              inDepth + 1, ioAtom.children);
}

bool AtomTree::IsZero(std::uint64_t inBegin, std::uint64_t inEnd) const
{
    if (inEnd - inBegin > kMaxZeroPadding)
    {
        return false;
    }
    std::array<std::uint8_t, 65536> bytes{};
    while (inBegin < inEnd)
    {
        const std::size_t count =
            mSource.Read(inBegin, std::span(bytes).first(std::min<std::uint64_t>(bytes.size(), inEnd - inBegin)));
        if (count == 0 || std::any_of(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(count),
                                      [](std::uint8_t inByte) { return inByte != 0; }))
        {
            return false;
        }
        inBegin += count;
    }
    return true;
}

} // namespace Inspect
