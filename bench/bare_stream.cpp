// Plays a tone until it is ended. It is linked with every library that the player is linked with,
// so that what it takes to start is what such a program takes at least.
#include "bare_stream.h"

#include <unistd.h>

#include <cstdio>
#include <exception>

int main()
{
    try
    {
        const BareStream stream;
        pause();
    }
    catch (const std::exception& error)
    {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
