#pragma once

#include <chrono>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>

namespace Host
{

//! Tells the user how far a long piece of work has come.
class Progress
{
public:
    using TimePoint = std::chrono::steady_clock::time_point;

    enum class Style
    {
        kQuiet,    //!< says nothing
        kTerminal, //!< redraws one line
        kLines,    //!< writes a line every few seconds
        kJson      //!< writes an object a second, a line each, and one at the end
    };

    Progress(std::ostream& inStream, Style inStyle);

    //! Ends the line on a terminal.
    ~Progress();

    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    //! The length of the whole, in seconds of movie; 0 when it is not known.
    void SetExpectedSeconds(double inSeconds) { mExpectedSeconds = inSeconds; }

    //! Shows the state unless it was shown just now.
    //!
    //! \param inSeconds  length of the movie written so far
    //! \param inBytes    size of the media written so far
    void Update(TimePoint inNow, double inSeconds, std::uint64_t inBytes);

    //! Shows that the work is done. Where people read, the summary that follows says so.
    void Finish(TimePoint inNow, double inSeconds, std::uint64_t inBytes);

private:
    void ShowJson(double inElapsed, double inSeconds, std::uint64_t inBytes, bool inIsDone);

    std::ostream& mStream;
    Style mStyle;
    double mExpectedSeconds = 0;
    TimePoint mStart;
    TimePoint mNextShow;
    bool mStarted = false;
    std::size_t mShownLength = 0; //!< of the line that stands on the terminal
};

//! A size for people: "1.5 GiB".
std::string FormatBytes(std::uint64_t inBytes);

//! A length of time for people: "1:02:03.250".
std::string FormatSeconds(double inSeconds);

//! Text with names of files in it, for people: each byte that is not UTF-8 as "\xFF".
std::string FormatNames(std::string_view inText);

} // namespace Host
