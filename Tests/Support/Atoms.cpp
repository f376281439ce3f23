#include "Atoms.h"

#include "Bytes.h"

#include <algorithm>
#include <array>
#include <ostream>
#include <stdexcept>

using Tolbin::utility::BinaryDataArray;

namespace
{

bool IsContainer(std::string_view inType)
{
    constexpr std::array<std::string_view, 6> kContainers{"moov", "trak", "mdia", "minf", "stbl", "tapt"};
    return std::find(kContainers.begin(), kContainers.end(), inType) != kContainers.end();
}

BinaryDataArray Part(const BinaryDataArray& inBytes, std::int64_t inOffset, std::int64_t inLength)
{
    const auto begin = inBytes.begin() + inOffset;
    return {begin, begin + inLength};
}

void ClearTimes(BinaryDataArray& ioBytes, std::int64_t inBegin, std::int64_t inEnd)
{
    const ReadAt read = [&](std::int64_t inOffset, std::size_t inLength) {
        return Part(ioBytes, inOffset, static_cast<std::int64_t>(inLength));
    };
    for (const Atom& atom : ListAtoms(read, inBegin, inEnd))
    {
        if (IsContainer(atom.type))
        {
            ClearTimes(ioBytes, atom.offset + 8, atom.offset + atom.size);
        }
        else if (atom.type == "mvhd" || atom.type == "tkhd" || atom.type == "mdhd")
        {
            std::fill_n(ioBytes.begin() + atom.offset + 12, 8, std::uint8_t{0});
        }
    }
}

} // namespace

void PrintTo(const Atom& inAtom, std::ostream* outStream)
{
    *outStream << inAtom.type << '@' << inAtom.offset << '+' << inAtom.size;
}

std::vector<Atom> ListAtoms(const ReadAt& inRead, std::int64_t inBegin, std::int64_t inEnd)
{
    std::vector<Atom> atoms;
    while (inBegin < inEnd)
    {
        if (inEnd - inBegin < 8)
        {
            throw std::runtime_error("no room for an atom header");
        }
        const BinaryDataArray header = inRead(inBegin, 8);
        Atom atom{std::string(header.begin() + 4, header.end()), inBegin, Big32(header, 0), 8};
        if (atom.size == 1)
        {
            atom.size = static_cast<std::int64_t>(Big64(inRead(inBegin + 8, 8), 0));
            atom.headerSize = 16;
        }
        if (atom.size < atom.headerSize || atom.size > inEnd - inBegin)
        {
            throw std::runtime_error("atom '" + atom.type + "' at " + std::to_string(inBegin) + " has size " +
                                     std::to_string(atom.size));
        }
        atoms.push_back(atom);
        inBegin += atom.size;
    }
    return atoms;
}

std::vector<Atom> ListAtoms(const BinaryDataArray& inBytes)
{
    const ReadAt read = [&](std::int64_t inOffset, std::size_t inLength) {
        return Part(inBytes, inOffset, static_cast<std::int64_t>(inLength));
    };
    return ListAtoms(read, 0, static_cast<std::int64_t>(inBytes.size()));
}

BinaryDataArray FindAtom(const BinaryDataArray& inBytes, std::string_view inPath)
{
    const std::string_view step = inPath.substr(0, inPath.find('/'));
    int index = step.size() > 4 ? step[5] - '0' : 0;
    for (const Atom& atom : ListAtoms(inBytes))
    {
        if (atom.type == step.substr(0, 4) && index-- == 0)
        {
            if (step.size() == inPath.size())
            {
                return Part(inBytes, atom.offset, atom.size);
            }
            return FindAtom(Part(inBytes, atom.offset + atom.headerSize, atom.size - atom.headerSize),
                            inPath.substr(step.size() + 1));
        }
    }
    throw std::runtime_error("no atom " + std::string(inPath));
}

std::string AtomTree(const BinaryDataArray& inBytes)
{
    std::string text;
    for (const Atom& atom : ListAtoms(inBytes))
    {
        text += text.empty() ? "" : " ";
        text += atom.type;
        if (IsContainer(atom.type))
        {
            text += '(';
            text += AtomTree(Part(inBytes, atom.offset + 8, atom.size - 8));
            text += ')';
        }
    }
    return text;
}

void ClearTimes(BinaryDataArray& ioBytes)
{
    ClearTimes(ioBytes, 0, static_cast<std::int64_t>(ioBytes.size()));
}
