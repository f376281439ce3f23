#pragma once

#include <string>

namespace Tolbin
{

//! A string of 16-bit code units in host order: file paths, codec names, text samples. Nothing keeps it from holding
//! lone surrogates; whoever converts it says what becomes of them. <Tolbin/String.h> converts paths and text.
using UTF16String = std::u16string;

} // namespace Tolbin
