#include "lab/fleet/fleet_agent.h"

#include <cmath>
#include <fmt/format.h>
#include <stdexcept>

#include "foundation/file_utils.h"
#include "platform/utf.h"
#include "zip/zip_writer.h"

namespace kv::lab {

namespace {

/// A record file is some 400 bytes as text, as those of a plan for servers are.
constexpr std::size_t maxZipBytes = std::size_t{64} << 20;

/// Between low and high, and back, in so many steps.
double Wave(double low, double high, std::int64_t step, double steps) {
    return low + (high - low) * (1 + std::sin(static_cast<double>(step) * 6.2832 / steps)) / 2;
}

std::string QueryRecord(const std::string& key, std::int64_t time, std::int64_t step) {
    return fmt::format(
        R"({{ "MSPCUSTOMERID": "Fleet", "AGENTKEY": "{}", "DATACOLLECTTIME": "{}", "ERRORMSG": "NO ERROR", )"
        R"("Disks": [ {{ "Size": "102745280512", "FreeSpace": "{:.0f}", "FileSystem": "ext4", "DeviceID": "\/" }}, )"
        R"({{ "Size": "512000000000", "FreeSpace": "{:.0f}", "FileSystem": "xfs", "DeviceID": "\/srv" }} ] }})",
        key, time, Wave(4e10, 7e10, step, 500), Wave(1e11, 3e11, step, 900));
}

std::string ProcessorRecord(const std::string& key, std::int64_t time, std::int64_t step) {
    return fmt::format(
        R"({{ "MSPCUSTOMERID": "Fleet", "AGENTKEY": "{}", "DATACOLLECTTIME": "{}", "ERRORMSG": "NO ERROR", )"
        R"("Processor time": [ {{ "PercentUserTime": "{:.0f}", "PercentProcessorTime": "{:.0f}", "Name": "_Total" }} ] }})",
        key, time, Wave(1, 60, step, 40), Wave(2, 90, step, 40));
}

std::string ScriptRecord(const std::string& key, std::int64_t time, std::int64_t step) {
    return fmt::format(
        R"({{ "AGENTKEY": "{}", "DATACOLLECTTIME": "{}", "ERRORMSG": "NO ERROR", "Memory": [ )"
        R"({{ "TotalKB": "16318720", "AvailableKB": "{:.0f}", "SwapTotalKB": "0", "SwapFreeKB": "0" }} ] }})",
        key, time, Wave(4e6, 1.2e7, step, 120));
}

std::string DeviceRecord(const std::string& key, std::int64_t time, std::int64_t step) {
    const std::int64_t octets = step * 1'234'567 % 4'294'967'296;
    return fmt::format(
        R"({{ "POLICY_NAME": "Interfaces", "AGENTKEY": "{}-SWITCH", "PROTOCOL": "SPOLL", "MSPCUSTOMERID": "Fleet", )"
        R"("ID": "17", "DATACOLLECTTIME": "{}", "STATUS": "SUCCESS", )"
        R"(".1.3.6.1.2.1.2.2.1.10": {{ ".1.3.6.1.2.1.2.2.1.10.2": "{}", ".1.3.6.1.2.1.2.2.1.10.1": "{}" }}, )"
        R"("TYPE": "65", "OID": ".1.3.6.1.2.1.2.2.1.10" }})",
        key, time, octets, octets / 3);
}

constexpr std::string (*forms[])(const std::string&, std::int64_t, std::int64_t){QueryRecord, ProcessorRecord,
                                                                                 ScriptRecord, DeviceRecord};

/// An archive in memory, closed at its end.
class MemoryZip {
  public:
    MemoryZip() : zip_(CreateZipMemory(nullptr, maxZipBytes, nullptr)) { Require(zip_ != nullptr); }
    ~MemoryZip() { static_cast<void>(CloseZip(zip_)); }
    MemoryZip(const MemoryZip&) = delete;
    MemoryZip& operator=(const MemoryZip&) = delete;

    void Add(const std::string& name, const std::string& bytes) {
        Require(AddMemoryToZip(zip_, platform::WideFromUtf8(name), bytes.data(), bytes.size()) == zip_result::ok);
    }
    std::string Bytes() {
        const void* block = nullptr;
        std::size_t size = 0;
        Require(GetZipMemory(zip_, block, size) == zip_result::ok);
        return {static_cast<const char*>(block), size};
    }

  private:
    static void Require(bool success) {
        if (!success) throw std::runtime_error("the agent's packer cannot make a zip");
    }

    ZipHandle zip_;
};

}  // namespace

FleetAgent::FleetAgent(std::string key, int number) : key_(std::move(key)), number_(number) {}

std::string FleetAgent::RegistrationPath() const {
    return fmt::format(
        "/servlets/RegisterAgent?agentKey={0}&agentID=fleet-{1}&agentDNS=fleet-{1}.example&ipAddress=192.0.2.{2}"
        "&customerName=Fleet&remoteOffice=Office%20{3}&osName=Debian%20GNU%2FLinux%2012",
        key_, number_, number_ % 254 + 1, number_ / 100);
}

std::string FleetAgent::StopPath() const {
    return "/servlets/StatusUpdateServlet?agentKey=" + key_ +
           "&agentStatus=AGENT_DOWN&serviceName=Corvinel%20Monitoring%20Agent";
}

std::string FleetAgent::RecordText(std::int64_t collected) {
    const std::int64_t step = collections_++;
    const auto form = static_cast<std::size_t>(step) % std::size(forms);
    return forms[form](key_, collected, step / static_cast<std::int64_t>(std::size(forms)) + number_);
}

void FleetAgent::Pack(int records, std::int64_t now) {
    const std::int64_t since = lastPack_ == 0 ? now : lastPack_;
    MemoryZip zip;
    for (int record = 0; record < records; ++record) {
        const std::int64_t collected = since + (now - since) * (record + 1) / records;
        zip.Add(fmt::format("data\\Agent_{}_{}.txt", key_, nextFile_++),
                Utf16LittleEndianBytes(platform::WideFromUtf8(RecordText(collected))));
    }
    waiting.push_back({fmt::format("Agent_{}_{}.zip", key_, nextFile_++), zip.Bytes()});
    lastPack_ = now;
}

}  // namespace kv::lab
