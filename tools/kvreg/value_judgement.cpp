#include "tools/kvreg/value_judgement.h"

#include <algorithm>
#include <fmt/format.h>
#include <string>

#include "commandline/program.h"
#include "commandline/run.h"
#include "foundation/agent_settings.h"
#include "platform/utf.h"
#include "tools/kvreg/key_judgement.h"
#include "tools/kvreg/value_text.h"

namespace kv {

namespace {

/// As "KVServerSecurePort takes a port number from 1 to 65535, not 'abc'"; empty when nothing is wrong.
std::string Fault(std::u16string_view path, const RegFileValue& value) {
    const AgentSetting* const setting = FindAgentSetting(path, value.name);
    if (!setting) return "";
    const std::string fault = SettingFault(*setting, value.type, value.data);
    return fault.empty() ? "" : SettingTitle(*setting) + " " + fault;
}

/// What is odd about a value's name under a key of the agent; empty when nothing is.
std::string NameDoubt(std::u16string_view path, std::u16string_view name) {
    if (!IsAgentKey(path) || FindAgentSetting(path, name)) return "";
    const std::string hint = NameHint(path, name);
    if (hint.empty() && !KeyDoubt(path, KeyUse::storing).empty()) return "";  // the key is told of
    return fmt::format("the agent does not know a value {} in the key {}{}", NameInLine(name),
                       platform::Utf8FromWide(path), hint.empty() ? "" : "; " + hint);
}

/// What is odd about the data of a value that the agent takes; empty when nothing is.
std::string DataDoubt(std::u16string_view path, const RegFileValue& value) {
    const AgentSetting* const setting = FindAgentSetting(path, value.name);
    if (!setting) return "";
    const std::string doubt = SettingDoubt(*setting, value.type, value.data);
    return doubt.empty() ? "" : SettingTitle(*setting) + " " + doubt;
}

}  // namespace

void Warn(const std::string& text) {
    if (text.empty()) return;
    static_cast<void>(std::fflush(stdout));
    fmt::print(stderr, "kvreg: warning: {}\n", commandline::InLine(text));
}

std::string NameHint(std::u16string_view path, std::u16string_view name) {
    if (!IsAgentKey(path) || FindAgentSetting(path, name)) return "";
    const std::string nearest = NearestSetting(path, name);
    return nearest.empty() ? "" : fmt::format("did you mean {}?", nearest);
}

void RefuseFault(std::u16string_view path, const RegFileValue& value) {
    const AgentSetting* const setting = FindAgentSetting(path, value.name);
    const std::string fault = Fault(path, value);
    if (!setting || fault.empty()) return;
    const bool isNumber = SettingType(*setting) == platform::RegistryType::dword;
    const bool isWrongKind = SettingType(*setting) != value.type;
    const char* const kindHint = isNumber ? ": add --dword" : ": leave --dword out";
    throw commandline::UsageError(
        fmt::format("{}{}; --force stores it all the same", fault, isWrongKind ? kindHint : ""));
}

void WarnOfValue(std::u16string_view path, const RegFileValue& value) {
    Warn(NameDoubt(path, value.name));
    Warn(DataDoubt(path, value));
}

void WarnOfFile(const RegFile& file, const std::string& name) {
    const auto warn = [&name](std::size_t line, const std::string& doubt) {
        if (!doubt.empty()) Warn(fmt::format("{}:{}: {}", name, line, doubt));
    };
    for (const RegFileKey& key : file) {
        if (key.deleted) continue;
        const bool isStored =
            std::any_of(key.values.begin(), key.values.end(), [](const RegFileValue& value) { return !value.deleted; });
        const std::string doubt = KeyDoubt(key.path, isStored ? KeyUse::storing : KeyUse::looking);
        warn(key.line, doubt);
        for (const RegFileValue& value : key.values) {
            if (value.deleted) continue;
            if (doubt.empty()) warn(value.line, NameDoubt(key.path, value.name));
            warn(value.line, Fault(key.path, value));
            warn(value.line, DataDoubt(key.path, value));
        }
    }
}

}  // namespace kv
