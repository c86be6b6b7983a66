#include "agent/server_trust.h"

#include <memory>
#include <string>
#include <utility>

#include "foundation/agent_state.h"
#include "foundation/file_utils.h"
#include "foundation/key_pins.h"
#include "foundation/log.h"
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
    else if (text.value_or(u"").find_first_not_of(u" \t\r\n") == std::u16string::npos)
        Refuse(trust, setting, "is empty");
    else
        return true;
    return false;
}

void ReadPinnedKeys(ServerTrust& trust) {
    OptionalText text;
    if (!IsGiven(trust, GetKVServerPinnedKey, "KVServerPinnedKey", text)) return;
    const KeyPins read = ReadKeyPins(*text);
    for (const std::u16string& pin : read.pins) trust.pinnedKeys.push_back(platform::Utf8FromWide(pin));
    if (read.pins.empty())
        Refuse(trust, "KVServerPinnedKey",
               "has [" + platform::Utf8FromWide(read.wrong) +
                   "], which is not sha256// and the 44 characters of a hash in Base64");
}

void ReadCAFile(ServerTrust& trust) {
    OptionalText path;
    if (!IsGiven(trust, GetKVServerCAFile, "KVServerCAFile", path)) return;
    trust.caFile = path;
    const std::string named = "names " + platform::Utf8FromWide(*path) + ", which ";
    // The same file from every working directory, so that a service and a check by hand trust the same.
    if (!IsWholePath(*path)) return Refuse(trust, "KVServerCAFile", named + "is not a whole path");
    if (IsDirectory(*path)) return Refuse(trust, "KVServerCAFile", named + "is a directory, not a file");
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
