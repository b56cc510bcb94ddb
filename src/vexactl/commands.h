#pragma once

// The subcommands of vexactl. Each takes the words after its name, writes its answer to standard output and
// throws CtlError for anything it could not do.

#include <string>
#include <vector>

namespace Vexa::Ctl {

class Bus;
using Words = std::vector<std::string>;

extern const char* const usageText;

// Runs the subcommand `words[0]`; CtlError Usage for an unknown one or wrong words.
void runCommand(Bus& bus, const Words& words);

} // namespace Vexa::Ctl
