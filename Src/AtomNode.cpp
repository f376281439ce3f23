#include "AtomNode.h"

#include "QTAtomRecords.h"

#include <Reelmill/QTTypes.h>

#include <cstring>
#include <utility>

namespace QT
{

AtomNode::AtomNode(Tolbin::utility::BinaryDataArray inAtom) : mContent(std::move(inAtom)) {}

AtomNode::AtomNode(const SampleTables& inTables) : mContent(inTables) {}

Tolbin::Result AtomNode::MakeContainer(std::uint32_t inType, std::vector<AtomNode> inChildren, AtomNode& outContainer)
{
    Container container{inType, kAtomHeaderSize, std::move(inChildren)};
    for (const AtomNode& child : container.children)
    {
        container.size += child.GetSize();
    }
    if (container.size > kMaxAtomSize)
    {
        return kQTErrTooLarge;
    }
    outContainer.mContent = std::move(container);
    return Tolbin::kResultSuccess;
}

std::uint64_t AtomNode::GetSize() const
{
    if (const auto* const container = std::get_if<Container>(&mContent))
    {
        return container->size;
    }
    if (const auto* const tables = std::get_if<SampleTables>(&mContent))
    {
        return tables->GetSize();
    }
    return std::get<Tolbin::utility::BinaryDataArray>(mContent).size();
}

// 0 size, 4 type, 8 the children one behind the other.
std::uint8_t* AtomNode::Write(std::uint8_t* outBytes) const
{
    if (const auto* const container = std::get_if<Container>(&mContent))
    {
        const qtn_GenericAtomHeader header(Low32(container->size), container->type);
        std::memcpy(outBytes, &header, sizeof(header));
        outBytes += sizeof(header);
        for (const AtomNode& child : container->children)
        {
            outBytes = child.Write(outBytes);
        }
        return outBytes;
    }
    if (const auto* const tables = std::get_if<SampleTables>(&mContent))
    {
        tables->Write(outBytes);
        return outBytes + tables->GetSize();
    }
    const auto& bytes = std::get<Tolbin::utility::BinaryDataArray>(mContent);
    if (!bytes.empty())
    {
        std::memcpy(outBytes, bytes.data(), bytes.size());
    }
    return outBytes + bytes.size();
}

} // namespace QT
