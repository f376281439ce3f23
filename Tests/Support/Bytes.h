#pragma once

#include <Tolbin/BinaryDataArray.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <string_view>

//! Bytes written down as the format's tables are. Tokens, separated by blanks:
//! - `0F`     one byte in hexadecimal
//! - `00*12`  one byte, repeated
//! - `#58`    a decimal number as 32 bits, big-endian
//! - `'moov'` text in single quotes, its characters
Tolbin::utility::BinaryDataArray Bytes(std::string_view inTable);

Tolbin::utility::BinaryDataArray operator+(const Tolbin::utility::BinaryDataArray& inFirst,
                                           const Tolbin::utility::BinaryDataArray& inSecond);

//! The bytes of a record as they stand in the file.
template <typename Record>
Tolbin::utility::BinaryDataArray BytesOf(const Record& inRecord)
{
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&inRecord);
    return {bytes, bytes + sizeof(Record)};
}

std::uint32_t Big32(const Tolbin::utility::BinaryDataArray& inBytes, std::size_t inOffset);
std::uint64_t Big64(const Tolbin::utility::BinaryDataArray& inBytes, std::size_t inOffset);

//! For `EXPECT_BYTES`: says where two arrays first differ, in hexadecimal.
testing::AssertionResult SameBytes(const char* inActualText, const char* inExpectedText,
                                   const Tolbin::utility::BinaryDataArray& inActual,
                                   const Tolbin::utility::BinaryDataArray& inExpected);

#define EXPECT_BYTES(actual, table) EXPECT_PRED_FORMAT2(SameBytes, actual, Bytes(table))
#define EXPECT_SAME_BYTES(actual, expected) EXPECT_PRED_FORMAT2(SameBytes, actual, expected)
