#pragma once

#include "SampleTables.h"

#include <Tolbin/BinaryDataArray.h>
#include <Tolbin/Result.h>

#include <cstdint>
#include <cstring>
#include <variant>
#include <vector>

namespace QT
{

//! An atom that is laid out once it is known where it ends. Containers are made from complete children, the innermost
//! first, but no byte of them is copied from container to container: `Write` puts each straight into its place.
class AtomTree
{
public:
    //! An atom from its bytes: an array that holds exactly one, or a record.
    explicit AtomTree(Tolbin::utility::BinaryDataArray inAtom);

    template <typename Record>
    static AtomTree FromRecord(const Record& inRecord)
    {
        const auto* const bytes = reinterpret_cast<const std::uint8_t*>(&inRecord);
        return AtomTree(Tolbin::utility::BinaryDataArray(bytes, bytes + sizeof(Record)));
    }

    //! The sample tables of a track, one atom behind the other. Their records must outlive the tree.
    explicit AtomTree(const SampleTables& inTables);

    //! An empty container, for `MakeContainer` to fill.
    AtomTree() = default;

    //! Fills `outContainer` with an atom of type `inType` whose payload is the children in order.
    //!
    //! \return 0; `kQTErrTooLarge` where the atom would reach 2 GiB.
    static Tolbin::Result MakeContainer(std::uint32_t inType, std::vector<AtomTree> inChildren, AtomTree& outContainer);

    //! In bytes, headers included.
    std::uint64_t GetSize() const;

    //! Stores the atom's bytes. \return Behind the last of them.
    std::uint8_t* Write(std::uint8_t* outBytes) const;

private:
    struct Container
    {
        std::uint32_t type;
        std::uint64_t size; //!< The header included.
        std::vector<AtomTree> children;
    };

    std::variant<Container, Tolbin::utility::BinaryDataArray, SampleTables> mContent;
};

} // namespace QT
