#include "service/service_unit.h"

#include "base/ascii_text.h"
#include "base/program_paths.h"

namespace corvane {
namespace {

// A path as a unit setting's value: quoted as one word where the setting
// takes words (WorkingDirectory takes the rest of its line); "%" would start
// a specifier. Quotes and backslashes systemd does not take in an executable.
std::optional<std::string> UnitPath(const std::string& path, bool quoted = true) {
  std::string value = quoted ? "\"" : "";
  for (char c : path) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F || c == '"' || c == '\'' || c == '\\') {
      return std::nullopt;
    }
    value += c == '%' ? "%%" : std::string(1, c);
  }
  return quoted ? value + "\"" : value;
}

bool UnderHomes(const std::string& path) {
  for (const char* home : {"/home/", "/root/", "/run/user/"}) {
    if (path.starts_with(home)) return true;
  }
  return false;
}

}  // namespace

std::optional<std::string> ServiceUnitText(const std::string& serviceName,
                                           const std::string& executable,
                                           const std::optional<std::string>& filesRoot) {
  std::string user = serviceName;
  LowerAscii(user);
  const std::string root = filesRoot.value_or("");
  auto command = UnitPath(executable);
  auto directory = UnitPath(ProgramDirectoryFromPath(executable), false);
  auto writable = UnitPath("-" + root);  // "-": a missing one does not stop the start
  if (!command || !directory || !writable) return std::nullopt;
  // A gateway built under a home directory must still see its executable.
  const bool homes = UnderHomes(executable) || UnderHomes(root);
  return "[Unit]\n"
         "Description=" +
         serviceName +
         " mail gateway for thin clients\n"
         "After=network-online.target\n"
         "Wants=network-online.target\n"
         "\n"
         "[Service]\n"
         "Type=notify\n"
         "ExecStart=" +
         *command +
         "\n"
         "WorkingDirectory=" +
         *directory +
         "\n"
         "Restart=on-failure\n"
         // Its own user (a static one of that name when the package made it);
         // account.dat, cache/ and temp/ go to StateDirectory, the logs to
         // LogsDirectory, which systemd hands over in the environment.
         "User=" +
         user +
         "\n"
         "DynamicUser=yes\n"
         "StateDirectory=" +
         user +
         "\n"
         "LogsDirectory=" +
         user +
         "\n"
         "UMask=0077\n"
         // Each IMAP account watched for new mail holds a connection.
         "LimitNOFILE=65536\n" +
         (root.empty() ? "" : "ReadWritePaths=" + *writable + "\n") +
         "ProtectSystem=strict\n"
         "ProtectHome=" +
         (homes ? "read-only" : "yes") +
         "\n"
         "PrivateTmp=yes\n"
         "PrivateDevices=yes\n"
         "PrivateUsers=yes\n"
         "NoNewPrivileges=yes\n"
         "CapabilityBoundingSet=\n"
         "AmbientCapabilities=\n"
         // Mail servers, the request port and syslog; nothing else.
         "RestrictAddressFamilies=AF_INET AF_INET6 AF_UNIX\n"
         "RestrictNamespaces=yes\n"
         "RestrictRealtime=yes\n"
         "RestrictSUIDSGID=yes\n"
         "RemoveIPC=yes\n"
         "LockPersonality=yes\n"
         "MemoryDenyWriteExecute=yes\n"
         "ProtectClock=yes\n"
         "ProtectHostname=yes\n"
         "ProtectKernelTunables=yes\n"
         "ProtectKernelModules=yes\n"
         "ProtectKernelLogs=yes\n"
         "ProtectControlGroups=yes\n"
         "ProtectProc=invisible\n"
         "ProcSubset=pid\n"
         "KeyringMode=private\n"
         "DevicePolicy=closed\n"
         "SystemCallArchitectures=native\n"
         "SystemCallFilter=@system-service\n"
         "SystemCallFilter=~@privileged @resources\n"
         "\n"
         "[Install]\n"
         "WantedBy=multi-user.target\n";
}

}  // namespace corvane
