#include "agent/enrolment.h"

#include <array>
#include <atomic>
#include <string>
#include <string_view>
#include <utility>

#include "agent/service_admin.h"
#include "collection/record_file.h"
#include "foundation/agent_health.h"
#include "foundation/agent_state.h"
#include "foundation/file_utils.h"
#include "foundation/guarded.h"
#include "foundation/host_utils.h"
#include "foundation/log.h"
#include "foundation/open_file.h"
#include "foundation/registry_store.h"
#include "foundation/text.h"
#include "foundation/thread_pool.h"
#include "http/http_answers.h"
#include "http/http_transaction.h"
#include "platform/clock.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/threads.h"
#include "platform/utf.h"
#include "queryconf/conf_paths.h"

namespace kv {

namespace {

constexpr std::u16string_view registrationPath = u"/servlets/RegisterAgent";

constexpr std::uint32_t retryMilliseconds = 60000;

/// How long name servers may hold up an agent that goes on with its key, in milliseconds.
constexpr std::uint32_t firstPatience = 5000;

/// How long the first registration may hold up an agent that goes on with its key.
constexpr std::uint32_t longestFirstMilliseconds = 10000;

/// False, too, for the text that stands for a missing key, and for the one from before the registry was read.
bool HasKey() {
    const std::u16string_view key = agentState.gv_agentKey.view();
    return !key.empty() && CompareIgnoreCase(key, u"HUBCENTER") != 0 && CompareIgnoreCase(key, u"NULL") != 0;
}

/// Asks for names and address again: at the start the network may not have been there yet.
std::u16string RegistrationUrl(std::uint32_t patience) {
    OptionalText dnsName;
    OptionalText address;
    if (!GetComputerNameWithDNS(dnsName, patience)) dnsName = agentState.gv_agentDNS;
    if (!GetLocalIPAddr(address, patience)) address = agentState.gv_localIPAddress;
    const std::array<std::pair<std::u16string_view, std::u16string>, 7> parameters{{
        {u"agentKey", std::u16string(agentState.gv_agentKey.view())},
        {u"agentID", agentState.gv_agentID.value_or(u"")},
        {u"agentDNS", dnsName.value_or(u"")},
        {u"ipAddress", address.value_or(u"")},
        {u"customerName", agentState.gv_custID.value_or(u"")},
        {u"remoteOffice", agentState.gv_remoteOfficeName.value_or(u"")},
        {u"osName", GetOSName()},
    }};
    std::u16string url(registrationPath);
    char16_t separator = u'?';
    for (const auto& [name, value] : parameters) {
        url += separator;
        url += name;
        url += u'=';
        url += QueryValue(value);
        separator = u'&';
    }
    return url;
}

/// A refusal has just been noted with the HTTP status; a poll may have failed since.
std::string RefusalText() {
    const std::string last = ReadLastEvents().sendingFailure;
    const bool isOfRegistration = last.starts_with(platform::Utf8FromWide(registrationPath));
    return "refused by the server" + (isOfRegistration ? ": " + last : "");
}

/// One exchange. True when the server has answered, and the agent knows whether to run and with which key.
bool Register(std::uint32_t patience) {
    Log3("\t Inside Register() \n");
    NoteRegistrationBegun();
    std::u16string url = RegistrationUrl(patience);
    Log2("\t InitLicenseParams :: URL is %s\n", url);
    const platform::Error error = AgentSendRequest(agentState.gv_ServerName, agentState.gv_ServerPort, url, {}, nullptr,
                                                   RequestKind::REQUEST_GET_HEADERS, 0, false);
    if (error != platform::error::success) {
        Log1("\t InitLicenseParams :: The server did not register this agent. retVal is [%d] \n", error);
        RunGuarded("NoteRegistration", [error] {
            NoteFailedRegistration(error == platform::error::invalidData ? RefusalText() : TransactionFailure(error));
        });
        return false;
    }
    if (agentState.gv_agentRunFlag == 1 && !HasKey()) {
        Log1("\t InitLicenseParams :: The server answered without an agent key\n");
        NoteFailureOf([] { return std::string("the server answers without an agent key"); }, FailureKind::sending);
        NoteFailedRegistration("answered without an agent key");
        return false;
    }
    Log1("\t InitLicenseParams :: Registered with agent key %s\n", agentState.gv_agentKey);
    NoteRegistration(agentState.gv_agentRunFlag == 1 ? registeredOutcome : "the server wants this agent not to run");
    return true;
}

void WaitForRetry() {
    Log1("\t InitLicenseParams :: Trying again in %d seconds\n", retryMilliseconds / 1000);
    platform::Clock().Sleep(retryMilliseconds);
}

/// From now on the agent tells its server when it ends.
void TakeRegistration() {
    if (agentState.gv_agentRunFlag == 1)
        SetEnableSendAgentStatus(u"yes");
    else
        Log1("\t InitLicenseParams :: The server wants this agent not to run, which counts from its next start on\n");
}

/// Thread body of an agent that already works: asks every minute until the server answers.
std::uint32_t RegisterLater(void* /*ignored*/) {
    bool isRegistered = false;
    while (!isRegistered) {
        WaitForRetry();
        RunGuarded("RegisterLater", [&isRegistered] {
            isRegistered = Register(platform::infinite);
            if (isRegistered) TakeRegistration();
        });
    }
    return 0;
}

/// What the first registration has come to.
enum class FirstOutcome { pending, registered, failed, notWaitedFor };
std::atomic<FirstOutcome> firstOutcome;

/// Thread body of the first registration of an agent that has a key. If the agent has gone on meanwhile, this thread
/// also asks later.
std::uint32_t RegisterFirst(void* /*outcome*/) {
    bool isRegistered = false;
    RunGuarded("RegisterFirst", [&isRegistered] { isRegistered = Register(firstPatience); });
    const FirstOutcome former = firstOutcome.exchange(isRegistered ? FirstOutcome::registered : FirstOutcome::failed);
    if (former != FirstOutcome::notWaitedFor) return 0;
    if (!isRegistered) return RegisterLater(nullptr);
    RunGuarded("RegisterFirst", TakeRegistration);
    return 0;
}

/// Waits ten seconds for an answer: five addresses that swallow what is sent to them take minutes.
FirstOutcome RegisterWithKey() {
    agentState.gv_agentRunFlag = 1;
    firstOutcome = FirstOutcome::pending;
    if (const platform::ThreadHandle thread = CreateNewThread_MSP(RegisterFirst, &firstOutcome))
        platform::Threads().WaitForThread(thread, longestFirstMilliseconds);
    else
        RegisterFirst(nullptr);
    return firstOutcome.exchange(FirstOutcome::notWaitedFor);
}

/// Nothing can be done before there is a key, or the server says that this agent must not run.
FirstOutcome RegisterForKey() {
    for (;;) {
        agentState.gv_agentRunFlag = 1;
        if (Register(platform::infinite)) return FirstOutcome::registered;
        if (agentState.gv_agentRunFlag != 1 || HasKey()) return FirstOutcome::failed;
        WaitForRetry();
    }
}

/// The reading of the settings may have ended before the key, or the key could not be read; the key of an earlier run
/// counts all the same. While nobody can say whether there is one, the agent does not ask for another: its server would
/// take it for a new agent, and it would lose its slaves.
void TakeStoredKey() {
    while (!HasKey()) {
        OptionalText key;
        const platform::Error error = GetOCAgentKey(key);
        if (error == platform::error::success && key) agentState.gv_agentKey.Publish(key);
        if (error == platform::error::success || error == platform::error::fileNotFound) return;
        Log1(
            "\t InitLicenseParams :: The stored agent key cannot be read, and no new one is asked for. Error is [%d]\n",
            error);
        WaitForRetry();
    }
}

/// Deletes an unfinished copy of a plan. A copy gets the plan's own name only when it is complete; before, it has one
/// of these.
void RemoveUnfinishedCopy(std::u16string_view directory, std::u16string_view suffix) {
    for (const std::u16string_view prefix : {u"", u".copy-"}) {
        const std::u16string path = ConcatStrings(directory, prefix).append(conf_path::planName).append(suffix);
        if (platform::Files().DeleteFileW(path) == platform::error::success)
            Log1("\t InitLicenseParams :: %s was left unfinished by an earlier run and is deleted\n", path);
    }
}

void RemoveUnfinishedCopies() {
    constexpr std::u16string_view restored = u".restored";
    constexpr std::u16string_view backup = u".new";
    RemoveUnfinishedCopy(u"..\\conf\\", restored);
    RemoveUnfinishedCopy(conf_path::backupDirectory, backup);
    const std::pair<std::u16string_view, std::u16string_view> slaves[] = {{conf_path::slavesDirectory, restored},
                                                                          {conf_path::backupDirectory, backup}};
    for (const auto& [directory, suffix] : slaves) {
        for (FileSearch search(ConcatStrings(directory, u"*")); search.hasFile(); search.Next()) {
            if (search.file.isDirectory && IsPlainFileName(search.file.fileName))
                RemoveUnfinishedCopy(ConcatStrings(directory, search.file.fileName) + u"\\", suffix);
        }
    }
}

}  // namespace

void InitLicenseParams() {
    Log3("\t Inside InitLicenseParams() \n");
    TakeStoredKey();
    if (CompareIgnoreCase(agentState.gv_agentKey.view(), u"HUBCENTER") == 0) {
        Log3("\t InitLicenseParams :: Going to delete slave dir...\n");
        DeleteDirectoryRecursively(agentState.gv_ocAgentBinPath.value_or(u"") + u"..\\conf\\slaves\\");
    }
    const FirstOutcome outcome = HasKey() ? RegisterWithKey() : RegisterForKey();
    if (agentState.gv_agentRunFlag != 1) {
        StopService();
        return;
    }
    if (outcome == FirstOutcome::registered)
        TakeRegistration();
    else
        Log1("\t InitLicenseParams :: Going on with the agent key of an earlier run\n");
    if (outcome == FirstOutcome::failed) CreateNewThread_MSP(RegisterLater, nullptr);
    RemoveUnfinishedCopies();
    RemoveUnfinishedRecordFiles();
    VerifyLastFileNum();
}

}  // namespace kv
