#include "Command.h"
#include "Interrupt.h"

#include <csignal>
#include <iostream>

namespace
{

//! The first signal lets the command end in order, the second ends it at once.
void Stop(int inSignal)
{
    if (Host::RequestStop())
    {
        std::signal(inSignal, SIG_DFL);
        std::raise(inSignal);
    }
}

} // namespace

int main(int argc, char** argv)
{
    for (const int number : {SIGINT, SIGTERM, SIGHUP})
    {
        std::signal(number, Stop);
    }
    std::signal(SIGXFSZ, SIG_IGN); // A file that reaches its size limit is a failed write.
    return Host::RunCommand(argc, argv, std::cout, std::cerr);
}
