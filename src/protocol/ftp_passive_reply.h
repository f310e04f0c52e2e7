#pragma once

#include <optional>
#include <string_view>

namespace corvane {

// The data port a server offers for a passive transfer: from EPSV's 229
// "(|||port|)" or PASV's 227 "h1,h2,h3,h4,p1,p2"; none for any other code,
// a malformed reply, or a port outside 1..65535. The address in a 227 reply
// is deliberately not returned: the data connection goes only to the server
// of the control connection, so a server cannot point it at another host.
std::optional<unsigned> PassiveDataPort(int code, std::string_view reply);

}  // namespace corvane
