// A server as people write it on a command line.
#pragma once

#include <string>
#include <string_view>

#include "commandline/program.h"

namespace kv::control {

/// Parts that were not given are empty.
struct ServerText {
    std::string protocol;  // "https" or "http"
    std::string host;      // an IPv6 address without its brackets
    std::string port;      // not checked
    std::string problem;   // what is wrong with the text, as the end of a sentence; empty when nothing is
};

/// Takes a name or an address, with or without a port, and URLs such as "https://cs.example.com:8443/". Of what looks
/// like a URL with a slip, the host is the one that was probably meant.
ServerText ParseServerText(std::string_view text);

/// UsageError when the value of an option has a user or password before an "@": the agent does not log in at its
/// server, and a password is not to be repeated on a screen.
void RefuseCredentials(const commandline::Given& given, const char* option);

/// Whether a text has the form of an IPv4 address, or of an IPv6 address without brackets (foundation/host_text.h).
bool IsAddress(std::string_view text);

}  // namespace kv::control
