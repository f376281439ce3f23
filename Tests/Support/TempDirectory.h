#pragma once

#include <Tolbin/BinaryDataArray.h>
#include <Tolbin/String.h>
#include <Tolbin/UTF16String.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

//! A new directory that goes with its content.
class TempDirectory
{
public:
    explicit TempDirectory(const std::string& inParent = testing::TempDir())
    {
        std::string name = inParent + "/reelmill-test-XXXXXX";
        if (mkdtemp(name.data()) == nullptr)
        {
            throw std::runtime_error("no temporary directory in " + inParent);
        }
        mPath = name;
    }

    ~TempDirectory()
    {
        std::error_code ignored; // A leftover in the temporary directory is no fault of the test's subject.
        std::filesystem::remove_all(mPath, ignored);
    }

    TempDirectory(const TempDirectory&) = delete;
    TempDirectory& operator=(const TempDirectory&) = delete;

    std::string Path(const std::string& inName) const { return mPath + "/" + inName; }
    Tolbin::UTF16String Path16(const std::string& inName) const { return Tolbin::string::PathToUTF16(Path(inName)); }

private:
    std::string mPath;
};

inline Tolbin::utility::BinaryDataArray ReadFile(const std::string& inPath)
{
    std::ifstream stream(inPath, std::ios::binary);
    if (!stream)
    {
        throw std::runtime_error("cannot read " + inPath);
    }
    std::ostringstream bytes;
    bytes << stream.rdbuf();
    const std::string text = bytes.str();
    return {text.begin(), text.end()};
}

inline void WriteFile(const std::string& inPath, const std::string& inContent)
{
    std::ofstream(inPath, std::ios::binary) << inContent;
}
