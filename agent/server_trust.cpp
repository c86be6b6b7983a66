#include "agent/server_trust.h"

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "foundation/agent_state.h"
#include "foundation/file_utils.h"
#include "foundation/log.h"
#include "foundation/proxy_password.h"
#include "foundation/registry_store.h"
#include "platform/http.h"
#include "platform/messages.h"
#include "platform/utf.h"

namespace kv {

namespace {

using platform::Error;
namespace error = platform::error;

/// Bytes of a file with authorities, at most: the system's own, some hundred of them, take a quarter of a megabyte.
constexpr std::uint64_t maxCAFileBytes = std::uint64_t{1024} * 1024;

constexpr std::size_t keyHashBytes = 32;

std::u16string_view WithoutBlanks(std::u16string_view text) {
    constexpr std::u16string_view blanks = u" \t\r\n";
    text.remove_prefix(std::min(text.find_first_not_of(blanks), text.size()));
    return text.substr(0, text.find_last_not_of(blanks) + 1);
}

/// A setting that cannot be used: the first one becomes the refusal.
void Refuse(ServerTrust& trust, const char* setting, const std::string& why) {
    const std::string text = std::string(setting) + " " + why;
    Log1(
        "\t getServerTrust() :: %s. Nothing is sent to a server until that is changed and the agent is started "
        "again\n",
        text);
    if (trust.refusal.empty()) trust.refusal = text;
}

/// The system's text of a failure, to go on from.
std::string SystemText(Error failure) {
    std::string text = platform::MessageInLine(failure);
    text.erase(text.find_last_not_of(" .") + 1);
    return text + " (error " + std::to_string(failure) + ")";
}

/// Reads a setting; false when it is absent, or refused for what it is.
bool IsGiven(ServerTrust& trust, Error (*read)(OptionalText&), const char* setting, OptionalText& text) {
    const Error failure = read(text);
    if (failure == error::fileNotFound) return false;
    if (failure == error::invalidData)
        Refuse(trust, setting, "is not a text");
    else if (failure != error::success)
        Refuse(trust, setting, "cannot be read: " + SystemText(failure));
    else if (WithoutBlanks(text.value_or(u"")).empty())
        Refuse(trust, setting, "is empty");
    else
        return true;
    return false;
}

/// Whether a text is the hash of a key, in the form that certificates are compared by.
bool IsKeyPin(std::u16string_view text) {
    constexpr std::u16string_view prefix = u"sha256//";
    if (!text.starts_with(prefix)) return false;
    const std::u16string hash = DecodeBase64(text.substr(prefix.size()));
    return hash.size() == keyHashBytes && EncodeBase64(hash) == text.substr(prefix.size());
}

void ReadPinnedKeys(ServerTrust& trust) {
    OptionalText text;
    if (!IsGiven(trust, GetKVServerPinnedKey, "KVServerPinnedKey", text)) return;
    std::u16string_view rest = *text;
    while (!rest.empty()) {
        const std::size_t end = std::min(rest.find(u';'), rest.size());
        const std::u16string_view key = WithoutBlanks(rest.substr(0, end));
        rest.remove_prefix(std::min(end + 1, rest.size()));
        if (key.empty() && (!trust.pinnedKeys.empty() || !rest.empty())) continue;
        if (IsKeyPin(key)) {
            trust.pinnedKeys.push_back(platform::Utf8FromWide(key));
        } else {
            return Refuse(trust, "KVServerPinnedKey",
                          "has [" + platform::Utf8FromWide(key) +
                              "], which is not sha256// and the 44 characters of a hash in Base64");
        }
    }
}

void ReadCAFile(ServerTrust& trust) {
    OptionalText path;
    if (!IsGiven(trust, GetKVServerCAFile, "KVServerCAFile", path)) return;
    trust.caFile = path;
    const std::string named = "names " + platform::Utf8FromWide(*path) + ", which ";
    std::string authorities;
    const Error failure = ReadWholeFile(*path, authorities, maxCAFileBytes);
    if (failure == error::moreData) return Refuse(trust, "KVServerCAFile", named + "is longer than 1 MB");
    if (failure != error::success)
        return Refuse(trust, "KVServerCAFile", named + "cannot be read: " + SystemText(failure));
    std::size_t count = 0;
    if (platform::Http().CountCertificates(authorities, count) != error::success)
        return Refuse(trust, "KVServerCAFile", named + "has a certificate that cannot be read");
    if (count == 0) return Refuse(trust, "KVServerCAFile", named + "has no certificate in PEM form");
    trust.authorities = std::make_shared<const std::string>(std::move(authorities));
}

void ReadVerify(ServerTrust& trust) {
    OptionalText text;
    if (!IsGiven(trust, GetKVServerVerify, "KVServerVerify", text)) return;
    if (CompareIgnoreCase(text, u"yes") == 0)
        trust.systemAuthorities = true;
    else if (CompareIgnoreCase(text, u"no") != 0)
        Refuse(trust, "KVServerVerify", "is [" + platform::Utf8FromWide(*text) + "], neither yes nor no");
}

}  // namespace

void getServerTrust() {
    Log3("\t Inside getServerTrust() \n");
    agentState.gv_serverTrust.refusal = "settings unread";  // stays if this ends early; too short to need memory
    ServerTrust trust;
    ReadPinnedKeys(trust);
    ReadCAFile(trust);
    ReadVerify(trust);
    Log2("\t getServerTrust() :: pinned keys : %d\n", trust.pinnedKeys.size());
    Log2("\t getServerTrust() :: CA file : %s\n", trust.caFile);
    Log2("\t getServerTrust() :: verified by the system's authorities : %d\n", trust.systemAuthorities ? 1 : 0);
    agentState.gv_serverTrust = std::move(trust);
}

}  // namespace kv
