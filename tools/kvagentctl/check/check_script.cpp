// What kvagentctl check says of a script's record.
#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fmt/format.h>
#include <iterator>
#include <optional>
#include <string_view>
#include <system_error>
#include <vector>

#include "collection/plan_members.h"
#include "foundation/file_utils.h"
#include "foundation/open_file.h"
#include "foundation/text.h"
#include "platform/console_tool.h"
#include "platform/files.h"
#include "platform/near_name.h"
#include "platform/utf.h"
#include "tools/kvagentctl/check/check_subject.h"
#include "tools/kvagentctl/readable_file.h"
#include "tools/kvagentctl/script_file.h"

namespace kv::control {

namespace {

using platform::Utf8FromWide;

/// What is wrong with the file of a script that is there.
void JudgeScriptFile(Findings& findings, const std::u16string& path, const std::string& native) {
    const auto fails = [&](const std::string& what, const std::string& next = "") {
        findings.Error("", fmt::format("script {} {}", native, what), next);
    };
    if (IsDirectory(path)) return fails("is a directory");
    const std::optional<platform::FilePermissions> permissions = platform::GetFilePermissions(path);
    if (!permissions) {
        const std::string fault = FileFault(path);
        if (!fault.empty()) fails(fault);
        return;
    }
    std::error_code unknown;
    if (!std::filesystem::is_regular_file(native, unknown)) return fails("is not a regular file");
    const std::string fault = FirstLineFault(path, permissions->isExecutable);
    if (!permissions->isExecutable)
        findings.Warn("", fmt::format("script {} is not executable, so /bin/sh runs it", native), "chmod +x " + native);
    if (!fault.empty()) fails(fault);
    if (permissions->othersWrite)
        fails(fmt::format("may be changed by others (mode {})", permissions->mode), "chmod 0750 " + native);
    if (!permissions->isOwnerTrusted)
        findings.Warn("", fmt::format("script {} belongs to {}", native, permissions->owner),
                      fmt::format("chown root {}, unless the agent runs as {}", native, permissions->owner));
}

std::u16string ScriptPath(const PlanContext& context, std::u16string_view script) {
    return context.install + u"monitoring\\conf\\scripts\\" + std::u16string(script);
}

/// The script that was probably meant by a name; empty when none resembles it.
std::string NearestScript(const PlanContext& context, const std::u16string& script) {
    std::vector<std::u16string> files;
    for (FileSearch search(ScriptPath(context, u"*")); search.hasFile(); search.Next()) {
        const std::u16string& name = search.file.fileName;
        if (name.starts_with(script + u".")) return Utf8FromWide(name);  // without its extension
        if (!name.starts_with(u'.')) files.push_back(name);
    }
    const std::vector<std::u16string_view> names(files.begin(), files.end());
    return Utf8FromWide(platform::NearestName(script, names));
}

constexpr std::u16string_view blanks = u" \t";

/// The first word of a text, which loses it and the blanks around it.
std::u16string TakeWord(std::u16string_view& text) {
    text.remove_prefix(std::min(text.find_first_not_of(blanks), text.size()));
    std::u16string word(text.substr(0, text.find_first_of(blanks)));
    text.remove_prefix(std::min(text.find_first_not_of(blanks, word.size()), text.size()));
    return word;
}

std::string AsMembers(std::u16string_view script, std::u16string_view params) {
    return fmt::format(R"("script": "{}")", Utf8FromWide(script)) +
           (params.empty() ? "" : fmt::format(R"(, "params": "{}")", Utf8FromWide(params)));
}

/// What to do about a name that is the command of an interpreter; empty when it does not look like one.
std::string HintOfInterpreter(const PlanContext& context, std::u16string_view command) {
    const std::string program = Utf8FromWide(TakeWord(command));
    while (command.starts_with(u'-')) TakeWord(command);  // options of the interpreter
    const std::u16string word = TakeWord(command);
    const std::u16string script = word.substr(word.find_last_of(u'/') + 1);
    if (script.empty()) return "";
    const bool isThere = MayExist(ScriptPath(context, script));
    const bool isNamedSo = script.find(u'.') != std::u16string::npos && IsInPath(program);
    if (!isThere && !isNamedSo) return "";
    const bool hasModes = platform::GetFilePermissions(context.install).has_value();
    return fmt::format("{}write {}; its {} names the interpreter",
                       isThere ? "" : fmt::format("put {} there, and ", Utf8FromWide(script)),
                       AsMembers(script, command), hasModes ? "first line" : "extension");
}

/// What to do about a script that does not exist.
std::string HintOfAbsentScript(const PlanContext& context, const std::u16string& script) {
    std::u16string_view params = script;
    const std::u16string word = TakeWord(params);
    const bool isThere = !word.empty() && MayExist(ScriptPath(context, word));
    if (std::string hint = isThere ? "" : HintOfInterpreter(context, script); !hint.empty()) return hint;
    if (!params.empty())
        return fmt::format("{}arguments go into params: {}", isThere ? "" : "put it there; ", AsMembers(word, params));
    if (isThere) return fmt::format("leave out the blanks: {}", AsMembers(word, u""));
    const std::string nearest = NearestScript(context, script);
    return nearest.empty() ? "put it there" : fmt::format("did you mean {}?", nearest);
}

std::vector<Finding> FindingsOfScript(const PlanContext& context, const std::u16string& script) {
    Findings findings;
    const std::string name = Utf8FromWide(script);
    const std::u16string names[] = {script};
    const std::u16string path = ScriptPath(context, script);
    const std::string native = Utf8FromWide(platform::Files().NativePath(path));
    if (!StaysBelowDirectory(script)) {
        const std::string hint = context.install.empty() ? "" : HintOfInterpreter(context, script);
        findings.Error("", fmt::format("script {} does not name a file below conf/scripts and is not run", name),
                       hint.empty() ? "put a script there that does it" : hint);
        return findings.list;
    }
    if (context.install.empty()) return {};
    if (const std::optional<std::u16string> refusal = context.scriptLimit.Refusal(names))
        findings.Error("", fmt::format("script {} is not run: {}", name, Utf8FromWide(*refusal)));
    if (MayExist(path))
        JudgeScriptFile(findings, path, native);
    else
        findings.Error("", fmt::format("script {} does not exist", native), HintOfAbsentScript(context, script));
    return findings.list;
}

void CheckScriptFile(const Subject& subject, const std::u16string& script) {
    const auto [known, isNew] = subject.context.scriptFindings.try_emplace(script);
    if (isNew) known->second = FindingsOfScript(subject.context, script);
    for (Finding finding : known->second) {
        finding.where = subject.where;
        subject.findings.list.push_back(std::move(finding));
    }
}

/// The words of params as the script gets them, those in double quotes left out.
std::vector<std::string> PlainWords(std::string_view params) {
    std::vector<std::string> words(1);
    bool isQuoted = false;
    for (const char character : params) {
        if (character == '"') isQuoted = !isQuoted;
        if (isQuoted || character == '"') continue;
        if (character == ' ' || character == '\t')
            words.emplace_back();
        else
            words.back() += character;
    }
    std::erase(words, "");
    return words;
}

/// Whether a word redirects input or output. A number behind the sign is taken for a threshold, such as >90.
bool IsRedirection(std::string_view word) {
    if (word.starts_with("2>") || word.starts_with(">>")) return true;
    if (word.size() < 2 || word.ends_with(word[0] == '<' ? '>' : '<')) return false;
    return (word[0] == '>' || word[0] == '<') && std::isdigit(static_cast<unsigned char>(word[1])) == 0 &&
           word[1] != '=';
}

bool IsVariable(std::string_view word) {
    const std::size_t dollar = word.find('$');
    if (dollar == std::string_view::npos || dollar + 1 == word.size()) return false;
    const char next = word[dollar + 1];
    return std::isalpha(static_cast<unsigned char>(next)) != 0 || next == '{' || next == '(';
}

/// Whether a word means something to a shell, and is of little use as it stands.
bool IsForShell(std::string_view word) {
    constexpr std::string_view operators[] = {"|", "||", "&", "&&", ";", "<", ">"};
    return std::find(std::begin(operators), std::end(operators), word) != std::end(operators) || IsRedirection(word) ||
           IsVariable(word) || word.find('`') != std::string_view::npos || word.starts_with("~/") ||
           (word.size() > 1 && word.ends_with(';'));
}

/// No shell reads params: what would mean something to one reaches the script as it stands.
void CheckParams(const Subject& subject) {
    const OptionalText params = subject.text(u"params");
    if (!params && subject.has(u"params"))
        return subject.Error("params is not a text: the script runs without it",
                             R"(write one text with blanks between, as in "params": "-a /home")");
    std::string text = Utf8FromWide(params.value_or(u""));
    for (std::size_t at = text.find(R"(\")"); at != std::string_view::npos; at = text.find(R"(\")", at))
        text.erase(at, 2);
    if (std::count(text.begin(), text.end(), '"') % 2 != 0)
        subject.Warn("params has a double quote that is not closed: all behind it is one argument", "close it");
    std::vector<std::string> words = PlainWords(text);
    if (std::any_of(words.begin(), words.end(), [](const std::string& word) { return word.starts_with('\''); }))
        subject.Warn("params has single quotes, which do not keep words together",
                     R"(double quotes do: "params": "\"two words\"")");
    const bool hasStar = std::any_of(words.begin(), words.end(), [](const std::string& word) {
        return word == "*" || (word.starts_with('/') && word.find('*') != std::string_view::npos);
    });
    std::erase_if(words, [](const std::string& word) { return !IsForShell(word); });
    constexpr const char* asItStands = "reaches the script as it stands, because no shell reads params";
    if (!words.empty())
        subject.Warn(fmt::format("{} in params {}", fmt::join(words, " "), asItStands), "do it in the script");
    if (hasStar) subject.Note(fmt::format("the * in params {}", asItStands));
}

/// Whether the script's output becomes a record, and if not, by what.
bool CheckResponseNeeded(const Subject& subject) {
    constexpr std::u16string_view wanted = u"response_needed";
    constexpr const char* whatComes = "the script runs, and no record comes";
    constexpr const char* next = R"(write "response_needed": "true" for a record)";
    const OptionalText text = subject.text(wanted);
    if (CompareIgnoreCase(text, u"true") == 0) return true;
    if (!text) {
        const std::string what = fmt::format("{}: {}", subject.Lack(wanted), whatComes);
        subject.has(wanted) ? subject.Warn(what, next) : subject.Note(what, next);
        return false;
    }
    const bool isMeant = CompareIgnoreCase(text, u"false") == 0 || CompareIgnoreCase(text, u"no") == 0;
    const std::string what = fmt::format("response_needed is \"{}\", not \"true\": {}", Utf8FromWide(*text), whatComes);
    isMeant ? subject.Note(what) : subject.Warn(what, next);
    return false;
}

}  // namespace

void CheckScript(const Subject& subject) {
    CheckMemberNames(subject.findings, subject.where, subject.record, scriptRecordMembers, subject.ignored);
    if (const OptionalText script = NeededText(subject, u"script")) CheckScriptFile(subject, *script);
    CheckParams(subject);
    const OptionalText name = subject.text(u"Name");
    if (!name)
        subject.Warn(subject.Lack(u"Name") + ", which shifts the script's arguments", "give it a Name");
    else if (name->empty())
        subject.Warn("Name is empty, which shifts the script's arguments", "give it a Name");
    if (CheckResponseNeeded(subject) && !name.value_or(u"").empty()) CheckName(subject, *name);
}

}  // namespace kv::control
