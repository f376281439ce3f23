#pragma once

#include <Tolbin/BinaryDataArray.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

//! An atom that a test changes: its fields, then its children.
struct EditableAtom
{
    std::string type;
    std::vector<std::uint8_t> fields; //!< Of an atom without known children, its whole payload.
    std::vector<EditableAtom> children;
    std::optional<std::uint32_t> statedSize; //!< Written instead of the true one.
    bool isWide = false;                     //!< Its size has 64 bits.

    //! The atom at a path below this one, such as "stbl/stsd"; its first part may lie at any depth. Throws when there
    //! is none.
    EditableAtom& operator[](std::string_view inPath);

    void Remove(std::string_view inType);                  //!< The first child of a type.
    void Add(EditableAtom inChild);                        //!< Behind the others.
    void Repeat(std::string_view inType);                  //!< The first child of a type once more, behind the others.
    void Put(std::size_t inOffset, std::uint32_t inValue); //!< 32 bits, counted from the first field.
    void Put16(std::size_t inOffset, std::uint16_t inValue);
    std::uint32_t Get(std::size_t inOffset) const;
    void Resize(int inDifference); //!< Cuts off the last field, or puts zeros behind it.

    std::uint64_t GetSize() const;
    void Write(std::vector<std::uint8_t>& ioBytes) const;
};

//! A movie taken apart: 'ftyp', 'mdat', 'moov', in this order whatever the order in the file, so that a change of
//! 'moov' moves no media.
class EditableMovie
{
public:
    explicit EditableMovie(const Tolbin::utility::BinaryDataArray& inFile);

    EditableAtom& TopLevel(std::string_view inType);
    EditableAtom& Track(std::size_t inIndex);
    EditableAtom& MooV() { return TopLevel("moov"); }

    std::vector<std::uint8_t> Bytes() const;

    std::vector<EditableAtom> atoms;
    std::vector<std::uint8_t> tail; //!< Behind the last atom.
};
