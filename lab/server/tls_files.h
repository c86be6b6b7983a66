// The certificate and key that the lab's server shows.
#pragma once

#include <string>

namespace kv::lab {

/// Why two PEM files cannot be a server's certificate and its key; empty when they can. Names the file.
std::string TlsFault(const std::string& certificate, const std::string& privateKey);

}  // namespace kv::lab
