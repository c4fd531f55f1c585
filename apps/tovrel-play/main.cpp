// tovrel-play: plays files and internet radio, on the whole of a terminal, on one line of it, or
// without one.
#include "file_info.h"
#include "options.h"
#include "program.h"
#include "recorder.h"

#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <langinfo.h>
#include <optional>
#include <utility>

int main(int argc, char** argv)
{
    std::setlocale(LC_CTYPE, "");
    const bool bUtf8 = std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
    // Names are taken as UTF-8 wherever the program runs. Numbers keep their points.
    std::setlocale(LC_CTYPE, "C.UTF-8");
    int status = 0;
    std::optional<Options> options = ParseOptions(argc, argv, status);
    if (!options)
        return status;
    SilenceDecoderLog();
    // A reader that has gone is noticed where something is written for it.
    std::signal(SIGPIPE, SIG_IGN);
    const std::string recording = options->recording;
    try
    {
        return Program(std::move(*options), bUtf8).Run();
    }
    catch (const RecordingError& error)
    {
        std::fprintf(stderr, "tovrel-play: %s: %s\n", recording.c_str(), error.what());
    }
    catch (const std::exception& error)
    {
        std::fprintf(stderr, "tovrel-play: %s\n", error.what());
    }
    return 1;
}
