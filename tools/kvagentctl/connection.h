// The way to the server by the agent's settings, for verbs that try it.
#pragma once

#include <string>
#include <vector>

namespace kv::control {

/// An address, and the settings that it stands in.
struct ServerAddress {
    std::u16string text;
    std::string settings;
};

/// The addresses in the order in which the agent tries them, each once.
std::vector<ServerAddress> ServerAddresses();

/// Reads what a request goes by into the agent state, without the rest of a start: port, protocol, proxy and trust.
/// False when there is no usable port. Throws as RequireReadableRegistry does.
bool ReadConnection();

/// Whether the settings that were read name a proxy, and its name. A bypass list may still lead past it.
bool UsesProxy();
std::string ProxyName();

}  // namespace kv::control
