#include "tools/kvreg/value_judgement.h"

#include <fmt/format.h>
#include <string>

#include "commandline/program.h"
#include "commandline/run.h"
#include "foundation/agent_settings.h"
#include "tools/kvreg/value_text.h"

namespace kv {

namespace {

void Warn(const std::string& text) {
    static_cast<void>(std::fflush(stdout));
    fmt::print(stderr, "kvreg: warning: {}\n", commandline::InLine(text));
}

/// As "KVServerSecurePort takes a port number from 1 to 65535, not 'abc'"; empty when nothing is wrong.
std::string Fault(const AgentSetting& setting, const RegFileValue& value) {
    const std::string fault = SettingFault(setting, value.type, value.data);
    return fault.empty() ? "" : SettingTitle(setting) + " " + fault;
}

}  // namespace

void RefuseFault(std::u16string_view path, const RegFileValue& value) {
    const AgentSetting* const setting = FindAgentSetting(path, value.name);
    const std::string fault = setting ? Fault(*setting, value) : "";
    if (!setting || fault.empty()) return;
    const bool isNumber = SettingType(*setting) == platform::RegistryType::dword;
    const bool isWrongKind = SettingType(*setting) != value.type;
    const char* const kindHint = isNumber ? ": add --dword" : ": leave --dword out";
    throw commandline::UsageError(
        fmt::format("{}{}; --force stores it all the same", fault, isWrongKind ? kindHint : ""));
}

void WarnOfName(std::u16string_view path, std::u16string_view name) {
    if (!IsAgentKey(path) || FindAgentSetting(path, name)) return;
    const std::string nearest = NearestSetting(path, name);
    Warn(fmt::format("the agent does not know a value {} in this key{}", NameInLine(name),
                     nearest.empty() ? "" : fmt::format("; did you mean {}?", nearest)));
}

void WarnOfFile(const RegFile& file) {
    for (const RegFileKey& key : file) {
        for (const RegFileValue& value : key.values) {
            if (key.deleted || value.deleted) continue;
            WarnOfName(key.path, value.name);
            const AgentSetting* const setting = FindAgentSetting(key.path, value.name);
            const std::string fault = setting ? Fault(*setting, value) : "";
            if (!fault.empty()) Warn(fault);
        }
    }
}

}  // namespace kv
