// kvagentctl check: settings, plan and server at once.
#include <fmt/format.h>

#include "foundation/file_utils.h"
#include "foundation/registry_store.h"
#include "foundation/text.h"
#include "platform/utf.h"
#include "queryconf/conf_paths.h"
#include "tools/kvagentctl/agent_process.h"
#include "tools/kvagentctl/check/check_parts.h"
#include "tools/kvagentctl/plan_neighbour.h"
#include "tools/kvagentctl/readable_file.h"
#include "tools/kvagentctl/verbs.h"

namespace kv::control {

namespace {

using commandline::Given;

void CheckSlaves(Findings& findings, const std::vector<SlavePlan>& plans) {
    OptionalText isMaster;
    static_cast<void>(GetMasterAgent(isMaster));
    if (!plans.empty() && CompareIgnoreCase(isMaster, u"yes") != 0)
        return findings.Note("plans of slaves", "are not loaded, because MasterAgent is not yes");
    for (const SlavePlan& plan : plans) CheckPlan(findings, plan.path, NativeName(plan.path), plan.slave);
}

void TellAbsentPlan(Findings& findings, std::u16string_view path, const std::string& name) {
    const std::string neighbour = PlanNeighbourHint(path);
    findings.Warn("plan " + name, "does not exist, so nothing is collected",
                  neighbour.empty() ? "put one there, or wait for the server to send one" : neighbour);
}

void CheckOwnPlan(Findings& findings) {
    const std::u16string install = InstallDirectory();
    if (install.empty()) return;
    const std::u16string bin = install + u"monitoring\\bin\\";
    const std::u16string path = ConcatStrings(bin, conf_path::ownPlan);
    const std::string name = NativeName(path);
    const std::u16string refused = ConcatStrings(bin, conf_path::refusedPlan);
    const std::string refusedName = NativeName(refused);
    for (const std::u16string& file : {path, refused}) CheckPermissions(findings, "plan", file, "0640", true);
    if (FileFault(refused).empty())
        findings.Warn("plan " + refusedName, "is the last new plan of the server, which the agent refused",
                      "kvagentctl check " + refusedName + " says why");
    if (MayExist(path))
        CheckPlan(findings, path, name, u"");
    else
        TellAbsentPlan(findings, path, name);
    CheckSlaves(findings, PlansOfSlaves(bin));
}

void RunCheck(const Given& given) {
    const std::string plan = commandline::Value(given, "PLAN");
    if (commandline::Has(given, "PLAN") && !MayExist(platform::WideFromUtf8(commandline::NeededValue(given, "PLAN"))))
        throw commandline::NotFoundError(fmt::format("'{}' does not exist", plan));
    RefuseDirectory(plan);
    Findings findings;
    bool isReadable = false;
    {
        // What the agent's libraries say of a part is its findings; the rest of their lines is not for people.
        const LogLines silence([](std::string_view) {});
        isReadable = CheckSettings(findings, plan.empty() ? Severity::error : Severity::note);
    }
    if (plan.empty())
        CheckOwnPlan(findings);
    else
        CheckPlan(findings, NamedPlan(plan).path(), plan, std::nullopt);
    if (commandline::Has(given, "--online") && isReadable)
        CheckServer(findings);
    else if (commandline::Has(given, "--online"))
        findings.Error("server", "is not tried, because there are no settings to go by");
    const bool isJson = commandline::Has(given, "--json");
    fmt::print("{}", isJson ? FindingsAsJson(findings) : PrintedFindings(findings));
    if (findings.Count(Severity::error) > 0) throw commandline::ExitWith{1};
}

}  // namespace

const commandline::Command& CheckVerb() {
    static constexpr commandline::Word words[] = {
        {"PLAN", "a plan's file; default: the agent's own and those of its slaves", true}};
    static constexpr commandline::Option options[] = {
        {"--online", "", "tries each address of the server, too: asks it for /, which changes nothing there"},
        {"--json", "", "prints the findings as JSON"}};
    static constexpr commandline::Command verb{
        "check",
        "Checks the settings and a plan. Each finding is a line: error or warning, where, what, and what to do. The "
        "last line counts them. Nothing is changed, run or collected. The exit code is 1 when there is an error.",
        words, options, RunCheck};
    return verb;
}

}  // namespace kv::control
