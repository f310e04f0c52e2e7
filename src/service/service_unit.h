#pragma once

#include <optional>
#include <string>

namespace corvane {

// The systemd unit that runs the gateway at `executable` as its own user in a
// sandbox: it writes only its state and log directories (and `filesRoot`,
// when set), reaches mail servers over TCP and starts the notification
// program, and nothing else. Nothing when a path cannot be written into a
// unit (a control byte in it).
std::optional<std::string> ServiceUnitText(const std::string& serviceName,
                                           const std::string& executable,
                                           const std::optional<std::string>& filesRoot);

}  // namespace corvane
