#pragma once

// Subcommands of vexa_probe, one function per area: argv[0] is the subcommand's name.
// Each prints what the test needs on standard output and returns the process exit status.

int probeAccounts(int argc, char** argv);
int probeProcess(int argc, char** argv);
int probePam(int argc, char** argv);
int probeXserver(int argc, char** argv);
