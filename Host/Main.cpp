#include "Command.h"
#include "Interrupt.h"

#include <csignal>
#include <iostream>

int main(int argc, char** argv)
{
    for (const int number : {SIGINT, SIGTERM, SIGHUP})
    {
        std::signal(number, [](int) { Host::RequestStop(); });
    }
    return Host::RunCommand(argc, argv, std::cout, std::cerr);
}
