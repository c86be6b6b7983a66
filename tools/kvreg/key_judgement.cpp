#include "tools/kvreg/key_judgement.h"

#include <algorithm>
#include <fmt/format.h>
#include <string>

#include "commandline/program.h"
#include "foundation/agent_settings.h"
#include "foundation/registry_store.h"
#include "foundation/text.h"
#include "platform/near_name.h"
#include "platform/registry_names.h"
#include "platform/utf.h"

namespace kv {

namespace {

bool StartsWith(std::u16string_view text, std::u16string_view beginning) {
    return CompareIgnoreCase(text.substr(0, beginning.size()), beginning) == 0;
}

/// A path without root and separators.
std::u16string LettersOf(std::u16string_view path) {
    std::u16string letters(path);
    std::erase_if(letters, [](char16_t unit) { return unit == u'\\' || unit == u'/'; });
    for (const std::u16string_view root : {u"HKEY_LOCAL_MACHINE", u"HKLM"}) {
        if (StartsWith(letters, root)) letters.erase(0, root.size());
    }
    return letters;
}

/// The key of the agent that a path means, whose backslashes have become slashes or have gone; empty for any other one.
std::u16string MeantAgentKey(std::u16string_view path) {
    const bool isWhole = path.find(u'\\') != std::u16string_view::npos && path.find(u'/') == std::u16string_view::npos;
    if (isWhole || IsAgentKey(path)) return {};
    const std::u16string letters = LettersOf(path);
    for (const std::u16string_view known : {serverInfoKeyPath, monitoringKeyPath, systemDetailsKeyPath, agentKeyPath}) {
        if (CompareIgnoreCase(letters, LettersOf(known)) == 0) return std::u16string(known);
    }
    const std::u16string own = LettersOf(agentKeyPath);
    return StartsWith(letters, own) ? std::u16string(agentKeyPath) + u"\\" + letters.substr(own.size()) : u"";
}

/// A path with single backslashes, which stand only between names.
std::u16string WithSingleBackslashes(std::u16string_view path) {
    std::u16string plain;
    while (!path.empty()) {
        const std::u16string_view name = path.substr(0, path.find_first_of(u"\\/"));
        if (!plain.empty() && !name.empty()) plain += u'\\';
        plain += name;
        path.remove_prefix(std::min(name.size() + 1, path.size()));
    }
    return plain;
}

/// The agent's key, or one below it, that a path means without its first names, or with nearly the same ones; empty for
/// any other path.
std::u16string NearAgentKey(std::u16string_view path) {
    if (IsAgentKey(path)) return {};
    for (std::u16string_view end = agentKeyPath; !end.empty(); platform::TakeKeyName(end)) {  // levels left out
        const std::u16string_view below = path.substr(std::min(end.size(), path.size()));
        if (StartsWith(path, end) && (below.empty() || below.starts_with(u'\\')))
            return std::u16string(agentKeyPath) + std::u16string(below);
    }
    std::u16string_view rest = path;
    for (std::u16string_view known = agentKeyPath; !known.empty();) {
        const std::u16string_view meant = platform::TakeKeyName(known);
        const std::u16string_view name = platform::TakeKeyName(rest);
        if (CompareIgnoreCase(name, meant) != 0 && platform::NearestName(name, {&meant, 1}).empty()) return {};
    }
    return std::u16string(agentKeyPath) + (rest.empty() ? u"" : u"\\") + std::u16string(rest);
}

}  // namespace

std::string KeyDoubt(std::u16string_view path) {
    std::u16string meant = MeantAgentKey(path);
    if (meant.empty() && path.find(u'\\') == std::u16string_view::npos &&
        path.find(u'/') != std::u16string_view::npos) {
        meant = WithSingleBackslashes(path);
    }
    if (meant.empty()) {
        const std::u16string near = NearAgentKey(path);
        if (near.empty()) return "";
        return fmt::format("did you mean '{1}', not '{0}'? The agent reads nothing there", platform::Utf8FromWide(path),
                           platform::Utf8FromWide(near));
    }
    return fmt::format(
        "did you mean '{1}', not '{0}'? Keys have backslashes between them, and in a shell they need quotes",
        platform::Utf8FromWide(path), platform::Utf8FromWide(meant));
}

void RefuseKeySlip(std::u16string_view path) {
    if (MeantAgentKey(path).empty()) return;
    throw commandline::UsageError(KeyDoubt(path) + "; --force takes the key as it stands");
}

std::string BackslashHint(std::u16string_view path) {
    const std::u16string plain = WithSingleBackslashes(path);
    const bool isMeant = plain != path && !plain.empty() && platform::IsRegistryKeyPath(plain);
    return isMeant
               ? fmt::format(": single backslashes stand between its names, as in '{}'", platform::Utf8FromWide(plain))
               : "";
}

}  // namespace kv
