#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace Host
{

//! The file that a subcommand is asked to write. It takes its name only when it is complete: what is written goes to a
//! part file beside it ("movie.mov.part"), so that a failure leaves nothing behind and an existing file as it was.
class OutputFile
{
public:
    //! Refuses (CommandError) an output that exists unless `inOverwrite`, that is no regular file or not writable, that
    //! is one of `inInputs` (by device and inode), or whose folder is missing. Touches nothing.
    OutputFile(const std::filesystem::path& inPath, bool inOverwrite, const std::vector<std::string>& inInputs);

    //! Removes the part file unless it was committed.
    ~OutputFile();

    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    //! As the user gave it.
    const std::filesystem::path& GetPath() const { return mPath; }

    //! Where the part file goes.
    std::filesystem::path GetFolder() const;

    //! Throws the CommandError that `CreatePart` would, as far as it can be told without creating anything.
    void CheckPart() const;

    //! Creates the part file, empty, and returns its path. Throws CommandError when that fails.
    const std::filesystem::path& CreatePart();

    //! Gives the part file the output's name. Without `inOverwrite` a file that has come to exist meanwhile is left
    //! alone. Throws CommandError, and the part file goes, when that fails.
    void Commit();

    //! As `Commit`, for a file that is less than what was asked for: it replaces no other file, but keeps the part
    //! file's name then, or when it cannot be given its own. Returns its path.
    std::filesystem::path CommitPartial();

    //! Leaves the part file where it is and returns its path.
    std::filesystem::path Keep();

private:
    std::filesystem::path mPath;
    std::filesystem::path mTarget; //!< The file itself, where `mPath` is a symbolic link to it.
    std::filesystem::path mPart;   //!< Empty unless it exists.
    bool mOverwrite;
};

//! Bytes that may still be written to the volume of a folder; none where the system does not say.
std::optional<std::uint64_t> GetFreeSpace(const std::filesystem::path& inFolder);

//! Refuses (CommandError) a file of `inSize` bytes where there is no room for it.
void CheckFreeSpace(const std::filesystem::path& inPath, std::uint64_t inSize, std::optional<std::uint64_t> inFree);

} // namespace Host
