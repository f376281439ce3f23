#pragma once

#include <Tolbin/Export.h>
#include <Tolbin/Result.h>
#include <Tolbin/UTF16String.h>

#include <string>
#include <string_view>

namespace Tolbin::string
{

//! UTF-8 for a UTF-16 string. A lone surrogate becomes U+FFFD (EF BF BD).
TOLBIN_EXPORT std::string UTF16to8(const UTF16String& inString);

//! The 8-bit form of a UTF-16 string, which is UTF-8; the same as `UTF16to8`.
TOLBIN_EXPORT std::string UTF16toStdString(const UTF16String& inString);

//! UTF-16 for a UTF-8 string. Each byte that is not part of well-formed UTF-8 becomes U+FFFD.
TOLBIN_EXPORT UTF16String UTF8to16(std::string_view inString);

//! UTF-16 for an ASCII string. A byte above 0x7F becomes U+FFFD.
TOLBIN_EXPORT UTF16String AsciiToUTF16(std::string_view inString);

//! UTF-16 for the path of a file, which on the systems supported here is any bytes without a zero. Each byte that is not
//! part of well-formed UTF-8 becomes the lone surrogate 0xDC00 + byte (U+DC80 to U+DCFF), so that every file has a name
//! of its own, which `UTF16ToPath` turns back into exactly these bytes.
TOLBIN_EXPORT UTF16String PathToUTF16(std::string_view inPath);

//! The bytes of a path in UTF-16: UTF-8, and for the lone surrogates of `PathToUTF16` the bytes that they stand for.
//!
//! \return 0; EILSEQ (as an error of the system) for any other lone surrogate, EINVAL for a zero: no file has such a
//!         name, and `outPath` is not to be used.
TOLBIN_EXPORT Result UTF16ToPath(const UTF16String& inPath, std::string& outPath);

//! Whether every surrogate in the string is one half of a pair.
TOLBIN_EXPORT bool IsValidUTF16(const UTF16String& inString);

} // namespace Tolbin::string
