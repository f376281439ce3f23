#include "OutputFile.h"

#include "CommandError.h"
#include "Progress.h"

#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace fs = std::filesystem;

namespace Host
{

namespace
{

constexpr int kMaximumPartNumber = 1000;

[[noreturn]] void Refuse(const fs::path& inPath, const std::string& inReason)
{
    throw CommandError(ExitCode::kInputRefused, fmt::format("\"{}\" {}", inPath.string(), inReason));
}

[[noreturn]] void FailSystem(const fs::path& inPath, const char* inWhat, int inError,
                             const char* inRemedy = "check the permissions of its folder, or write to another")
{
    throw CommandError(ExitCode::kIOFailed, fmt::format("\"{}\" cannot be {}: {}; {}", inPath.string(), inWhat,
                                                        std::generic_category().message(inError), inRemedy));
}

} // namespace

OutputFile::OutputFile(const fs::path& inPath, bool inOverwrite, const std::vector<std::string>& inInputs)
    : mPath(inPath), mTarget(inPath), mOverwrite(inOverwrite)
{
    std::error_code error;
    const fs::file_status linkStatus = fs::symlink_status(inPath, error);
    const fs::file_status status = fs::status(inPath, error);
    if (fs::exists(status))
    {
        struct stat output = {};
        if (::stat(inPath.c_str(), &output) != 0)
        {
            FailSystem(inPath, "examined", errno);
        }
        for (const std::string& input : inInputs)
        {
            struct stat other = {};
            if (::stat(input.c_str(), &other) == 0 && other.st_dev == output.st_dev && other.st_ino == output.st_ino)
            {
                Refuse(inPath,
                       fmt::format("is the same file as the input \"{}\"; give the output another name", input));
            }
        }
        if (!fs::is_regular_file(status))
        {
            Refuse(inPath, "is not a regular file; give the output another name");
        }
        if (!inOverwrite)
        {
            Refuse(inPath, "exists already; use -y to overwrite it");
        }
        if (::access(inPath.c_str(), W_OK) != 0)
        {
            Refuse(inPath, "may not be written to; change its permissions or give the output another name");
        }
        mTarget = fs::canonical(inPath, error);
        if (error)
        {
            FailSystem(inPath, "examined", error.value());
        }
        return;
    }
    if (status.type() == fs::file_type::none)
    {
        FailSystem(inPath, "examined", error.value());
    }
    if (fs::is_symlink(linkStatus))
    {
        Refuse(inPath, "is a link to a file that does not exist; give the output another name");
    }
    if (!inPath.has_filename() || inPath.filename() == "." || inPath.filename() == "..")
    {
        Refuse(inPath, "names a folder; give the output a file name");
    }
    const fs::path folder = inPath.has_parent_path() ? inPath.parent_path() : fs::path(".");
    if (!fs::is_directory(folder, error))
    {
        Refuse(inPath,
               fmt::format("cannot be created: there is no folder \"{}\"; make it, or name another", folder.string()));
    }
}

OutputFile::~OutputFile()
{
    if (!mPart.empty())
    {
        std::error_code ignored; // There is nobody left to tell, and the reason for being here was told already.
        fs::remove(mPart, ignored);
    }
}

fs::path OutputFile::GetFolder() const
{
    return mTarget.has_parent_path() ? mTarget.parent_path() : fs::path(".");
}

void OutputFile::CheckPart() const
{
    fs::path part = mTarget;
    part += ".part";
    struct stat info = {};
    if (::access(GetFolder().c_str(), W_OK | X_OK) != 0 || (::lstat(part.c_str(), &info) != 0 && errno != ENOENT))
    {
        FailSystem(mPath, "created", errno);
    }
}

const fs::path& OutputFile::CreatePart()
{
    for (int number = 0; number < kMaximumPartNumber; ++number)
    {
        fs::path part = mTarget;
        part += number == 0 ? ".part" : fmt::format(".{}.part", number);
        std::error_code error;
        if (fs::exists(part.string() + ".journal", error))
        {
            continue; // That of another movie, which is still to be recovered or has been lost.
        }
        const int file = ::open(part.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (file >= 0)
        {
            ::close(file); // Nothing was written to it.
            mPart = std::move(part);
            return mPart;
        }
        if (errno != EEXIST)
        {
            FailSystem(mPath, "created", errno);
        }
    }
    FailSystem(mPath, "created", EEXIST);
}

void OutputFile::Commit()
{
    if (mOverwrite)
    {
        struct stat replaced = {};
        if (::stat(mTarget.c_str(), &replaced) == 0 && ::chmod(mPart.c_str(), replaced.st_mode & 07777) != 0)
        {
            FailSystem(mPath, "given the permissions of the file that it replaces", errno);
        }
    }
    // A hard link fails where a file of that name exists, which a rename does not; not every file system has them.
    else if (::link(mPart.c_str(), mTarget.c_str()) == 0)
    {
        const fs::path part = Keep();
        if (::unlink(part.c_str()) != 0)
        {
            FailSystem(part, "removed", errno, "the output is complete, so remove this file yourself");
        }
        return;
    }
    else if (errno == EEXIST || ::access(mTarget.c_str(), F_OK) == 0)
    {
        Refuse(mPath, "has come to exist meanwhile; use -y to overwrite it");
    }
    if (::rename(mPart.c_str(), mTarget.c_str()) != 0)
    {
        FailSystem(mPath, "given its name", errno);
    }
    mPart.clear();
}

fs::path OutputFile::CommitPartial()
{
    std::error_code error;
    if (fs::exists(mTarget, error) || error)
    {
        return Keep();
    }
    try
    {
        Commit();
        return mPath;
    }
    catch (const CommandError&)
    {
        return Keep(); // Which its caller tells.
    }
}

fs::path OutputFile::Keep()
{
    return std::exchange(mPart, fs::path());
}

std::optional<std::uint64_t> GetFreeSpace(const fs::path& inFolder)
{
    std::error_code error;
    const fs::space_info space = fs::space(inFolder, error);
    const bool isKnown = !error && space.capacity != 0; // Some volumes have no size at all.
    return isKnown ? std::optional<std::uint64_t>(space.available) : std::nullopt;
}

void CheckFreeSpace(const fs::path& inPath, std::uint64_t inSize, std::optional<std::uint64_t> inFree)
{
    if (inFree && *inFree < inSize)
    {
        Refuse(inPath, fmt::format("does not fit its volume: it takes {} and {} are free; make room or write it to "
                                   "another volume",
                                   FormatBytes(inSize), FormatBytes(*inFree)));
    }
}

} // namespace Host
