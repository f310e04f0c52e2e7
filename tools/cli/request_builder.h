#pragma once

#include <string>

#include "cli_options.h"

namespace corvane::cli {

// The plain entry log of the request the options describe: a "sysREQUEST"
// record with the --req fields, then a "sysPARAMETER" record with the --param
// and --mparam fields.
std::string BuildRequest(const CliOptions& options);

}  // namespace corvane::cli
