// vexactl: the administrator's command for the vexa session manager, a client of its bus interface.

#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

#include "vexactl/bus.h"
#include "vexactl/commands.h"

int main(int argc, char** argv) {
    using namespace Vexa::Ctl;
    const Words words(argv + 1, argv + argc);
    if (words.empty() || words[0] == "help" || words[0] == "--help" || words[0] == "-h") {
        std::fputs(usageText, words.empty() ? stderr : stdout);
        return static_cast<int>(words.empty() ? Exit::Usage : Exit::Ok);
    }
    try {
        Bus bus;
        runCommand(bus, words);
        return static_cast<int>(Exit::Ok);
    } catch (const CtlError& err) {
        std::fprintf(stderr, "vexactl: %s\n", err.what());
        if (err.code == Exit::Usage) {
            std::fputs(usageText, stderr);
        }
        return static_cast<int>(err.code);
    } catch (const std::exception& err) {
        std::fprintf(stderr, "vexactl: %s\n", err.what());
        return static_cast<int>(Exit::Failed);
    }
}
