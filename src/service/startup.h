#pragma once

#include <string>

#include "base/program_paths.h"

namespace corvane {

// Start-up before the service object exists: reads "config.ini" into the
// process-wide settings, makes the working directories and opens the log.
ProgramPaths InitGlobals(const std::string& programDirectory);

// Tears down the process-wide state: registry, text settings, log writer.
// Safe to call more than once.
void DestroyGlobals();

// Logs, at info level, what the command line is about to do.
void LogStartupIntent(int argc, char** argv);

// The whole entry function: start-up, the chosen run, teardown.
int RunProgram(int argc, char** argv);

}  // namespace corvane
