#pragma once

#include <Tolbin/BinaryDataArray.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

//! Reads `inLength` bytes of a file at an offset.
using ReadAt = std::function<Tolbin::utility::BinaryDataArray(std::int64_t inOffset, std::size_t inLength)>;

struct Atom
{
    std::string type;
    std::int64_t offset;
    std::int64_t size;
    std::int64_t headerSize; //!< 16 with a 64-bit size, else 8.

    bool operator==(const Atom&) const = default;
};

//! For test output: "moov@32+1000".
void PrintTo(const Atom& inAtom, std::ostream* outStream);

//! The atoms that lie back to back in a range of a file. Throws when they do not fill it exactly.
std::vector<Atom> ListAtoms(const ReadAt& inRead, std::int64_t inBegin, std::int64_t inEnd);

//! The same over an array of atoms.
std::vector<Atom> ListAtoms(const Tolbin::utility::BinaryDataArray& inBytes);

//! One whole atom out of an array that holds atoms, by its path, such as "moov/trak[1]/mdia/mdhd"; the index counts
//! the siblings of one type from 0. Throws when there is none.
Tolbin::utility::BinaryDataArray FindAtom(const Tolbin::utility::BinaryDataArray& inBytes, std::string_view inPath);

//! The containers of a movie with their children in order: "moov(mvhd trak(tkhd edts ...))".
std::string AtomTree(const Tolbin::utility::BinaryDataArray& inBytes);

//! Zeroes the creation and modification times of every movie, track and media header.
void ClearTimes(Tolbin::utility::BinaryDataArray& ioBytes);
