// What kvreg thinks of the paths of keys: which ones are slips that mean a key of the agent. Paths are below
// HKEY_LOCAL_MACHINE.
#pragma once

#include <string>
#include <string_view>

namespace kv {

enum class KeyUse { looking, storing };

/// What is odd about the path of a key, with the one that was probably meant; empty when nothing is. Odd is a path of
/// an agent's key whose backslashes have become slashes or have gone, all or some, as a shell takes them away outside
/// quotes, another one with slashes in the place of backslashes, and one near the agent's key: with nearly its names,
/// with another agent's name in its place, with names too many, or without some. Where a value is to be stored, odd are
/// also the keys above the agent's own, and those below it that the agent does not know.
std::string KeyDoubt(std::u16string_view path, KeyUse use);

/// For a path that is an agent's key and behind it the name of a value there: how the two are given. Else empty.
std::string JoinedValueHint(std::u16string_view path);

/// Whether a word, without the root's name, is the path of a key of the agent, also with its backslashes gone.
bool IsAgentKeyByLetters(std::u16string_view path);

/// UsageError for an agent's key whose backslashes have become slashes or have gone.
void RefuseKeySlip(std::u16string_view path);

/// For a path that is not one because of its backslashes, to go on from that: the one that was probably meant. Else
/// empty.
std::string BackslashHint(std::u16string_view path);

}  // namespace kv
