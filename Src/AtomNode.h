#pragma once

#include "SampleTables.h"

#include <Tolbin/BinaryDataArray.h>
#include <Tolbin/Result.h>

#include <cstdint>
#include <variant>
#include <vector>

namespace QT
{

//! An atom that is laid out once it is known where it ends. Containers are made from complete children, the innermost
//! first, but no byte of them is copied from container to container: `Write` puts each straight into its place.
class AtomNode
{
public:
    //! An atom from its bytes: an array that holds exactly one, or a record.
    explicit AtomNode(Tolbin::utility::BinaryDataArray inAtom);

    template <typename Record>
    static AtomNode FromRecord(const Record& inRecord)
    {
        const auto* const bytes = reinterpret_cast<const std::uint8_t*>(&inRecord);
        return AtomNode(Tolbin::utility::BinaryDataArray(bytes, bytes + sizeof(Record)));
    }

    //! The sample tables of a track, one atom behind the other. Their records must outlive the tree.
    explicit AtomNode(const SampleTables& inTables);

    //! An empty container, for `MakeContainer` to fill.
    AtomNode() = default;

    //! Fills `outContainer` with an atom of type `inType` whose payload is the children in order.
    //!
    //! \return 0; `kQTErrTooLarge` where the atom would reach 2 GiB.
    static Tolbin::Result MakeContainer(std::uint32_t inType, std::vector<AtomNode> inChildren, AtomNode& outContainer);

    //! In bytes, headers included.
    std::uint64_t GetSize() const;

    //! Stores the atom's bytes. \return Behind the last of them.
    std::uint8_t* Write(std::uint8_t* outBytes) const;

private:
    struct Container
    {
        std::uint32_t type;
        std::uint64_t size; //!< The header included.
        std::vector<AtomNode> children;
    };

    std::variant<Container, Tolbin::utility::BinaryDataArray, SampleTables> mContent;
};

} // namespace QT
