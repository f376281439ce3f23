#include "EditableMovie.h"

#include "Atoms.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <stdexcept>

namespace
{

//! How many bytes of fields stand in front of an atom's children; nothing for atoms without.
std::optional<std::int64_t> FieldsSize(const std::string& inType)
{
    static const std::map<std::string, std::int64_t> kSizes = {
        {"moov", 0}, {"trak", 0}, {"mdia", 0}, {"minf", 0}, {"stbl", 0}, {"edts", 0},  {"tapt", 0},  {"gmhd", 0},
        {"tref", 0}, {"dinf", 0}, {"wave", 0}, {"dref", 8}, {"stsd", 8}, {"apcn", 78}, {"in24", 44}, {"lpcm", 64},
    };
    const auto found = kSizes.find(inType);
    return found != kSizes.end() ? std::optional(found->second) : std::nullopt;
}

void AppendBig(std::vector<std::uint8_t>& ioBytes, std::uint64_t inValue, int inSize)
{
    for (int shift = 8 * (inSize - 1); shift >= 0; shift -= 8)
    {
        ioBytes.push_back(static_cast<std::uint8_t>(inValue >> shift));
    }
}

std::vector<EditableAtom> TakeApart(const Tolbin::utility::BinaryDataArray& inFile, std::int64_t inBegin,
                                    std::int64_t inEnd)
{
    const ReadAt read = [&inFile](std::int64_t inOffset, std::size_t inLength) {
        const auto begin = inFile.begin() + inOffset;
        return Tolbin::utility::BinaryDataArray(begin, begin + static_cast<std::ptrdiff_t>(inLength));
    };
    std::vector<EditableAtom> atoms;
    for (const Atom& atom : ListAtoms(read, inBegin, inEnd))
    {
        EditableAtom& editable = atoms.emplace_back();
        editable.type = atom.type;
        const std::int64_t begin = atom.offset + atom.headerSize;
        const std::int64_t end = atom.offset + atom.size;
        const std::optional<std::int64_t> fieldsSize = FieldsSize(atom.type);
        const std::int64_t children = fieldsSize ? begin + *fieldsSize : end;
        editable.fields.assign(inFile.begin() + begin, inFile.begin() + children);
        editable.children = TakeApart(inFile, children, end);
    }
    return atoms;
}

//! Moves the chunk offsets below an atom.
void MoveChunks(EditableAtom& ioAtom, std::int64_t inDistance)
{
    for (EditableAtom& child : ioAtom.children)
    {
        MoveChunks(child, inDistance);
        for (std::size_t entry = 8; child.type == "stco" && entry < child.fields.size(); entry += 4)
        {
            child.Put(entry, static_cast<std::uint32_t>(child.Get(entry) + inDistance));
        }
    }
}

EditableAtom* Find(EditableAtom& ioAtom, std::string_view inType)
{
    for (EditableAtom& child : ioAtom.children)
    {
        EditableAtom* found = child.type == inType ? &child : Find(child, inType);
        if (found != nullptr)
        {
            return found;
        }
    }
    return nullptr;
}

std::vector<EditableAtom>::iterator FindChild(std::vector<EditableAtom>& ioAtoms, std::string_view inType)
{
    const auto found = std::find_if(ioAtoms.begin(), ioAtoms.end(),
                                    [inType](const EditableAtom& inAtom) { return inAtom.type == inType; });
    if (found == ioAtoms.end())
    {
        throw std::out_of_range("no atom " + std::string(inType));
    }
    return found;
}

} // namespace

EditableAtom& EditableAtom::operator[](std::string_view inPath)
{
    std::size_t slash = inPath.find('/');
    EditableAtom* atom = Find(*this, inPath.substr(0, slash));
    if (atom == nullptr)
    {
        throw std::out_of_range("no atom " + std::string(inPath));
    }
    while (slash != std::string_view::npos)
    {
        inPath.remove_prefix(slash + 1);
        slash = inPath.find('/');
        atom = &*FindChild(atom->children, inPath.substr(0, slash));
    }
    return *atom;
}

void EditableAtom::Remove(std::string_view inType)
{
    children.erase(FindChild(children, inType));
}

void EditableAtom::Add(EditableAtom inChild)
{
    children.push_back(std::move(inChild));
}

void EditableAtom::Repeat(std::string_view inType)
{
    Add(*FindChild(children, inType));
}

void EditableAtom::Put(std::size_t inOffset, std::uint32_t inValue)
{
    for (int i = 0; i < 4; ++i)
    {
        fields.at(inOffset + static_cast<std::size_t>(i)) = static_cast<std::uint8_t>(inValue >> (24 - 8 * i));
    }
}

void EditableAtom::Put16(std::size_t inOffset, std::uint16_t inValue)
{
    fields.at(inOffset) = static_cast<std::uint8_t>(inValue >> 8);
    fields.at(inOffset + 1) = static_cast<std::uint8_t>(inValue);
}

std::uint32_t EditableAtom::Get(std::size_t inOffset) const
{
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < 4; ++i)
    {
        value = value << 8 | fields.at(inOffset + i);
    }
    return value;
}

void EditableAtom::Resize(int inDifference)
{
    fields.resize(static_cast<std::size_t>(static_cast<std::ptrdiff_t>(fields.size()) + inDifference));
}

std::uint64_t EditableAtom::GetSize() const
{
    std::uint64_t size = (isWide ? 16 : 8) + fields.size();
    for (const EditableAtom& child : children)
    {
        size += child.GetSize();
    }
    return size;
}

void EditableAtom::Write(std::vector<std::uint8_t>& ioBytes) const
{
    AppendBig(ioBytes, statedSize ? *statedSize : isWide ? 1 : GetSize(), 4);
    ioBytes.insert(ioBytes.end(), type.begin(), type.end());
    if (isWide)
    {
        AppendBig(ioBytes, GetSize(), 8);
    }
    ioBytes.insert(ioBytes.end(), fields.begin(), fields.end());
    for (const EditableAtom& child : children)
    {
        child.Write(ioBytes);
    }
}

EditableMovie::EditableMovie(const Tolbin::utility::BinaryDataArray& inFile)
{
    std::vector<EditableAtom> all = TakeApart(inFile, 0, static_cast<std::int64_t>(inFile.size()));
    std::int64_t oldMedia = 0;
    for (const Atom& atom : ListAtoms(inFile))
    {
        oldMedia = atom.type == "mdat" ? atom.offset : oldMedia;
    }
    for (const char* type : {"ftyp", "mdat", "moov"})
    {
        atoms.push_back(std::move(*FindChild(all, type)));
    }
    MoveChunks(MooV(), static_cast<std::int64_t>(TopLevel("ftyp").GetSize()) - oldMedia);
}

EditableAtom& EditableMovie::TopLevel(std::string_view inType)
{
    return *FindChild(atoms, inType);
}

EditableAtom& EditableMovie::Track(std::size_t inIndex)
{
    for (EditableAtom& child : MooV().children)
    {
        if (child.type == "trak" && inIndex-- == 0)
        {
            return child;
        }
    }
    throw std::out_of_range("no such track");
}

std::vector<std::uint8_t> EditableMovie::Bytes() const
{
    std::vector<std::uint8_t> bytes;
    for (const EditableAtom& atom : atoms)
    {
        atom.Write(bytes);
    }
    bytes.insert(bytes.end(), tail.begin(), tail.end());
    return bytes;
}
