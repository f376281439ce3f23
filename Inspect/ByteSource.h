#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

namespace Inspect
{

//! Bytes at known offsets: a file, or a block of memory. Reading beyond the end gives fewer bytes, never an error.
class ByteSource
{
public:
    virtual ~ByteSource() = default;

    virtual std::uint64_t GetSize() const = 0;

    //! Fills `outBytes` from `inOffset` on and returns how many bytes there were. Throws `std::system_error` when the
    //! system cannot read them.
    virtual std::size_t Read(std::uint64_t inOffset, std::span<std::uint8_t> outBytes) const = 0;
};

//! A file that is open for reading.
class FileSource final : public ByteSource
{
public:
    //! Throws `std::system_error` when the file cannot be opened or is not a regular file.
    explicit FileSource(const std::filesystem::path& inPath);
    ~FileSource() override;

    FileSource(const FileSource&) = delete;
    FileSource& operator=(const FileSource&) = delete;

    std::uint64_t GetSize() const override { return mSize; }
    std::size_t Read(std::uint64_t inOffset, std::span<std::uint8_t> outBytes) const override;

private:
    std::string mPath;
    int mDescriptor;
    std::uint64_t mSize = 0;
};

//! Bytes that the caller keeps.
class MemorySource final : public ByteSource
{
public:
    explicit MemorySource(std::span<const std::uint8_t> inBytes) : mBytes(inBytes) {}

    std::uint64_t GetSize() const override { return mBytes.size(); }
    std::size_t Read(std::uint64_t inOffset, std::span<std::uint8_t> outBytes) const override;

private:
    std::span<const std::uint8_t> mBytes;
};

//! Takes big-endian values off the front of some bytes. Once the bytes run out every value is 0 and `HasFailed` is
//! true, so that a record can be read as its table and checked once at the end.
class ByteReader
{
public:
    explicit ByteReader(std::span<const std::uint8_t> inBytes) : mRest(inBytes) {}

    std::uint8_t U8() { return static_cast<std::uint8_t>(Take(1)); }
    std::uint16_t U16() { return static_cast<std::uint16_t>(Take(2)); }
    std::uint32_t U24() { return static_cast<std::uint32_t>(Take(3)); }
    std::uint32_t U32() { return static_cast<std::uint32_t>(Take(4)); }
    std::uint64_t U64() { return Take(8); }
    std::int16_t I16() { return static_cast<std::int16_t>(U16()); }
    std::int32_t I32() { return static_cast<std::int32_t>(U32()); }
    std::int64_t I64() { return static_cast<std::int64_t>(U64()); }
    double F64();

    std::span<const std::uint8_t> Bytes(std::size_t inCount);
    void Skip(std::size_t inCount) { Bytes(inCount); }

    std::span<const std::uint8_t> Rest() const { return mRest; }
    bool HasFailed() const { return mHasFailed; }

private:
    std::uint64_t Take(std::size_t inCount);

    std::span<const std::uint8_t> mRest;
    bool mHasFailed = false;
};

} // namespace Inspect
