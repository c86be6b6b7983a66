#include "tools/kvreg/key_judgement.h"

#include <algorithm>
#include <fmt/format.h>
#include <iterator>
#include <optional>
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

using platform::TakeKeyName;
using platform::Utf8FromWide;

constexpr std::u16string_view agentKeys[] = {serverInfoKeyPath, monitoringKeyPath, systemDetailsKeyPath, agentKeyPath};

bool SameName(std::u16string_view left, std::u16string_view right) { return CompareIgnoreCase(left, right) == 0; }

bool StartsWith(std::u16string_view text, std::u16string_view beginning) {
    return SameName(text.substr(0, beginning.size()), beginning);
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

/// The key of the agent that a path means, whose backslashes have become slashes or have gone, all or some of them;
/// empty for any other one.
std::u16string MeantAgentKey(std::u16string_view path) {
    if (IsAgentKey(path)) return {};
    const std::u16string letters = LettersOf(path);
    for (const std::u16string_view known : agentKeys) {
        if (SameName(letters, LettersOf(known))) return std::u16string(known);
    }
    const bool isWhole = path.find(u'\\') != std::u16string_view::npos && path.find(u'/') == std::u16string_view::npos;
    if (isWhole) return {};
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

std::u16string_view LastName(std::u16string_view path) { return path.substr(path.rfind(u'\\') + 1); }

/// A path without its last name.
std::u16string_view ParentOf(std::u16string_view path) {
    return path.substr(0, path.size() - std::min(LastName(path).size() + 1, path.size()));
}

bool HasName(std::u16string_view path, std::u16string_view name) {
    while (!path.empty()) {
        if (SameName(TakeKeyName(path), name)) return true;
    }
    return false;
}

bool IsNear(std::u16string_view name, std::u16string_view meant) {
    return SameName(name, meant) || !platform::NearestName(name, {&meant, 1}).empty();
}

/// Whether a name stands for the agent's own: nearly that, or another one of an agent.
bool MeansAgentName(std::u16string_view name) {
    constexpr std::u16string_view ending = u"Agent";
    return IsNear(name, LastName(agentKeyPath)) ||
           (name.size() >= ending.size() && SameName(name.substr(name.size() - ending.size()), ending));
}

bool IsOneOfTheAgentsKeys(std::u16string_view path) {
    return std::any_of(std::begin(agentKeys), std::end(agentKeys),
                       [path](std::u16string_view known) { return SameName(path, known); });
}

std::u16string BelowAgentKey(std::u16string_view rest) {
    return std::u16string(agentKeyPath) + (rest.empty() ? u"" : u"\\") + std::u16string(rest);
}

/// What stands in a path behind the agent's own name, wherever that is, or behind names that are nearly those of the
/// agent's key, the last of which may be that of another agent; absent for any other path.
std::optional<std::u16string_view> BehindAgentName(std::u16string_view path) {
    std::optional<std::u16string_view> behind;
    for (std::u16string_view rest = path; !rest.empty();) {
        if (SameName(TakeKeyName(rest), LastName(agentKeyPath))) behind = rest;
    }
    if (behind) return behind;
    for (std::u16string_view known = ParentOf(agentKeyPath); !known.empty();) {
        if (!IsNear(TakeKeyName(path), TakeKeyName(known))) return std::nullopt;
    }
    return MeansAgentName(TakeKeyName(path)) ? std::optional(path) : std::nullopt;
}

/// The agent's key that a path means whose agent's name is left out. Such a path has names from above the agent's key,
/// then at most that of a key below it, or only the latter. Empty for any other path.
std::u16string MeantWithoutAgentName(std::u16string_view path) {
    const std::u16string_view above = ParentOf(agentKeyPath);
    bool isOfAgent = false;
    std::u16string_view rest = path;
    while (!rest.empty()) {
        std::u16string_view behind = rest;
        const std::u16string_view name = TakeKeyName(behind);
        const bool isGeneral = SameName(name, u"Software") || SameName(name, u"WOW6432Node");
        if (!isGeneral && !HasName(above, name)) break;
        isOfAgent = isOfAgent || !isGeneral;
        rest = behind;
    }
    const std::u16string meant = BelowAgentKey(rest);
    isOfAgent = isOfAgent || (!rest.empty() && rest.size() == path.size());
    return isOfAgent && IsOneOfTheAgentsKeys(meant) ? meant : u"";
}

/// The agent's key, or one below it, that a path means which is not quite that; empty for any other path.
std::u16string NearAgentKey(std::u16string_view path) {
    const std::optional<std::u16string_view> behind = BehindAgentName(path);
    std::u16string meant = behind ? BelowAgentKey(*behind) : MeantWithoutAgentName(path);
    return SameName(meant, path) ? u"" : meant;
}

/// The agent's key that a path means which has another key below that one; empty when none is near.
std::u16string NearKeyBelow(std::u16string_view path) {
    std::u16string_view below = path.substr(agentKeyPath.size() + 1);
    const std::u16string_view first = TakeKeyName(below);
    for (const std::u16string_view name : {LastName(path), first}) {
        for (const std::u16string_view known : agentKeys) {
            if (known != agentKeyPath && IsNear(name, LastName(known))) return std::u16string(known);
        }
    }
    return {};
}

std::string MeantText(std::u16string_view path, std::u16string_view meant, const char* reason) {
    return fmt::format("did you mean '{}', not '{}'? {}", Utf8FromWide(meant), Utf8FromWide(path), reason);
}

constexpr const char* readsNothing = "The agent reads nothing there";

/// What is odd about a key below the agent's own in which a value is to be stored; empty when the agent knows the key.
std::string UnknownKeyDoubt(std::u16string_view path) {
    if (IsOneOfTheAgentsKeys(path)) return "";
    if (std::string hint = JoinedValueHint(path); !hint.empty()) return hint;
    if (const std::u16string meant = NearKeyBelow(path); !meant.empty()) return MeantText(path, meant, readsNothing);
    return fmt::format("the agent reads nothing in the key {}; in {} it knows ServerInfo, Monitoring and SystemDetails",
                       Utf8FromWide(path), Utf8FromWide(agentKeyPath));
}

}  // namespace

std::string KeyDoubt(std::u16string_view path, KeyUse use) {
    std::u16string meant = MeantAgentKey(path);
    if (meant.empty() && path.find(u'\\') == std::u16string_view::npos && path.find(u'/') != std::u16string_view::npos)
        meant = WithSingleBackslashes(path);
    if (!meant.empty())
        return MeantText(path, meant, "Keys have backslashes between them, and in a shell they need quotes");
    const bool isAbove = StartsWith(agentKeyPath, std::u16string(path) + u"\\");
    if (use == KeyUse::looking && isAbove) return "";
    if (const std::u16string near = NearAgentKey(path); !near.empty()) return MeantText(path, near, readsNothing);
    return use == KeyUse::storing && IsAgentKey(path) ? UnknownKeyDoubt(path) : "";
}

std::string JoinedValueHint(std::u16string_view path) {
    const AgentSetting* const setting = FindAgentSetting(ParentOf(path), LastName(path));
    if (!setting) return "";
    return fmt::format("{1} is a value, and its name an argument of its own: \"{0}\" {1}", Utf8FromWide(setting->key),
                       Utf8FromWide(setting->name));
}

bool IsAgentKeyByLetters(std::u16string_view path) { return IsAgentKey(path) || !MeantAgentKey(path).empty(); }

void RefuseKeySlip(std::u16string_view path) {
    if (MeantAgentKey(path).empty()) return;
    throw commandline::UsageError(KeyDoubt(path, KeyUse::storing) + "; --force takes the key as it stands");
}

std::string BackslashHint(std::u16string_view path) {
    const std::u16string plain = WithSingleBackslashes(path);
    const bool isMeant = plain != path && !plain.empty() && platform::IsRegistryKeyPath(plain);
    return isMeant ? fmt::format(": single backslashes stand between its names, as in '{}'", Utf8FromWide(plain)) : "";
}

}  // namespace kv
