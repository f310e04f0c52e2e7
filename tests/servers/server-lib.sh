# Shell functions the test-server scripts share: packages, ports, processes.
# Sourced; the script sets `prog` (its name, for messages) first.

die() {
  echo "$prog: $*" >&2
  exit 1
}

# Fails, naming what is missing and how to install it, unless every Debian
# package given is installed. The scripts never install anything themselves:
# they run in parallel, and apt-get takes one lock at a time.
require_packages() {
  local missing=() p
  for p in "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'ok installed' || missing+=("$p")
  done
  [[ ${#missing[@]} -eq 0 ]] && return
  die "missing Debian packages: ${missing[*]}; install them (and the rest the tests need) as root with: $repo/scripts/install-deps test"
}

# /proc/net/tcp* spelling of an IPv4 address and a port.
hex_ipv4() {
  local a b c d
  IFS=. read -r a b c d <<<"$1"
  printf '%02X%02X%02X%02X' "$d" "$c" "$b" "$a"
}

# True when something listens on ip:port, on that address or on a wildcard.
port_in_use() {
  local port_hex ip_hex
  port_hex=$(printf '%04X' "$2")
  ip_hex=$(hex_ipv4 "$1")
  awk -v want="$ip_hex:$port_hex" -v port=":$port_hex" '
    FNR > 1 && $4 == "0A" {
      if ($2 == want || $2 == "00000000" port || $2 == "0000000000000000FFFF0000" want ||
          $2 == "00000000000000000000000000000000" port) found = 1
    }
    END { exit !found }' /proc/net/tcp /proc/net/tcp6 2>/dev/null
}

# Who listens on a port, with the command line of each process.
holder_of() {
  command -v ss >/dev/null || return 0
  local line pid
  while IFS= read -r line; do
    echo "  $line"
    grep -o 'pid=[0-9]*' <<<"$line" | cut -d= -f2 | while read -r pid; do
      echo "    pid $pid: $(command_line "$pid")"
    done
  done < <(ss -Hltnp "sport = :$1" 2>/dev/null)
}

accepts() {
  (exec 3<>"/dev/tcp/$1/$2") 2>/dev/null
}

# Waits up to 10 s for every "host port" pair given to accept connections.
wait_for_ports() {
  local deadline=$((SECONDS + 10))
  while [[ $# -gt 0 ]]; do
    if accepts "$1" "$2"; then
      shift 2
    elif [[ $SECONDS -ge $deadline ]]; then
      return 1
    else
      sleep 0.05
    fi
  done
}

children_of() {
  local stat line fields
  for stat in /proc/[0-9]*/stat; do
    read -r line 2>/dev/null <"$stat" || continue
    read -ra fields <<<"${line##*) }"
    [[ ${fields[1]} == "$1" ]] && echo "${stat//[^0-9]/}"
  done
  return 0
}

# True while the process runs (a zombie waiting for its reaper counts as gone).
alive() {
  local line fields
  read -r line 2>/dev/null <"/proc/$1/stat" || return 1
  read -ra fields <<<"${line##*) }"
  [[ ${fields[0]} != Z ]]
}

command_line() {
  tr '\0' ' ' 2>/dev/null <"/proc/$1/cmdline"
}
