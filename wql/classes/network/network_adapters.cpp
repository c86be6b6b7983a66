// Win32_NetworkAdapter and Win32_NetworkAdapterConfiguration: the network interfaces except loopback, which is not an
// adapter on Windows either.
#include <algorithm>
#include <functional>
#include <map>
#include <net/if_arp.h>

#include "facts/network/host_names.h"
#include "facts/network/network_addresses.h"
#include "facts/network/network_devices.h"
#include "facts/schedule/local_time.h"
#include "facts/system_text.h"
#include "wql/class_tree.h"
#include "wql/classes/failures.h"

namespace kv::wql {

namespace {

using enum CimType;

struct Need {
    enum Bits : std::uint32_t {
        device = 1,
        macAddress = 2,
        connection = 4,
        speed = 8,
        mtu = 16,
        addresses = 32,
        gateways = 64,
        resolver = 128,
        host = 256,
    };
};

/// What the rows of one query share.
struct Surroundings {
    std::u16string host;
    facts::ResolverSettings resolver;
    std::vector<facts::InterfaceAddress> addresses;
    std::vector<facts::DefaultRoute> defaultRoutes;
    std::map<std::string, std::uint32_t> metrics;  // of IPv4's default routes, by their interfaces
};

struct Row {
    facts::NetworkInterface interface;
    facts::InterfaceDevice device;
    std::optional<std::string> macAddress;
    bool hasConnection = false;
    std::optional<std::uint64_t> speed;  // bits per second
    std::optional<std::uint64_t> mtu;    // bytes
    std::vector<facts::InterfaceAddress> addresses;
    std::vector<facts::DefaultRoute> gateways;
    std::optional<std::uint32_t> metric;
    std::optional<std::uint32_t> leaseSeconds;  // for which an IPv4 address is still valid; null if forever
    const Surroundings* surroundings = nullptr;

    bool usesIp() const { return interface.isUp && !addresses.empty(); }
};

std::string ProductOf(const Row& row) { return row.device.product.empty() ? row.interface.name : row.device.product; }

struct AdapterKind {
    std::uint32_t linkType;
    std::uint16_t number;
    std::u16string_view text;
};

/// Drivers of both systems present radio networks as Ethernet.
constexpr AdapterKind adapterKinds[] = {
    {ARPHRD_ETHER, 0, u"Ethernet 802.3"},
    {ARPHRD_IEEE802_TR, 1, u"Token Ring 802.5"},
    {ARPHRD_FDDI, 2, u"Fiber Distributed Data Interface (FDDI)"},
    {ARPHRD_PPP, 3, u"Wide Area Network (WAN)"},
    {ARPHRD_IEEE1394, 13, u"1394"},
};

const AdapterKind* KindOf(const Row& row) {
    const auto* found = std::find_if(std::begin(adapterKinds), std::end(adapterKinds),
                                     [&](const AdapterKind& kind) { return kind.linkType == row.interface.linkType; });
    return found != std::end(adapterKinds) ? found : nullptr;
}

CimValue AdapterTypeOf(const Row& row) {
    const AdapterKind* kind = KindOf(row);
    return kind != nullptr ? CimValue(kind->text) : CimValue();
}

CimValue AdapterTypeIdOf(const Row& row) {
    const AdapterKind* kind = KindOf(row);
    return kind != nullptr ? CimValue(kind->number) : CimValue();
}

// States of a connection, by their numbers in Windows.
constexpr std::uint16_t connected = 2;

std::uint16_t ConnectionStatusOf(const Row& row) {
    constexpr std::uint16_t disconnected = 0;
    constexpr std::uint16_t mediaDisconnected = 7;
    if (!row.interface.isUp) return disconnected;
    return row.hasConnection ? connected : mediaDisconnected;
}

/// One resolver serves all interfaces with IP.
CimValue ResolverList(const Row& row, const std::vector<std::string>& texts) {
    return row.usesIp() ? ListOrNull(texts) : CimValue();
}

/// A text of each address, of each gateway.
template <class Thing, class Member>
CimValue ListOfEach(const std::vector<Thing>& things, Member member) {
    CimArray list;
    for (const Thing& thing : things) list.elements.emplace_back(std::invoke(member, thing));
    return list.elements.empty() ? CimValue() : CimValue(std::move(list));
}

CimValue DomainIn(const Row& row) {
    const std::vector<std::string>& domains = row.surroundings->resolver.domains;
    return row.usesIp() && !domains.empty() ? CimValue(domains.front()) : CimValue();
}

CimValue LeaseEndIn(const Row& row) {
    if (!row.leaseSeconds) return {};
    constexpr std::int64_t microsecondsPerSecond = 1'000'000;
    return DmtfTime(facts::MicrosecondsNow() + *row.leaseSeconds * microsecondsPerSecond);
}

/// What no interface with IP has here, and Windows tells of those only.
CimValue FalseIfIp(const Row& row) { return row.usesIp() ? CimValue(false) : CimValue(); }

constexpr auto productIn = [](const Row& row) { return ProductOf(row); };
constexpr auto indexIn = [](const Row& row) { return row.interface.index; };
constexpr auto nameIn = [](const Row& row) { return row.interface.name; };
constexpr auto macAddressIn = [](const Row& row) { return row.macAddress; };
constexpr auto driverIn = [](const Row& row) { return facts::KnownText(row.device.driver); };

// clang-format off
constexpr PropertyInfo adapterProperties[] = {
    {u"AdapterType", string, 0, "AdapterTypeId in words", [](const Row& row) { return AdapterTypeOf(row); }},
    {u"AdapterTypeId", uint16, 0, "0 Ethernet and radio networks, 1 Token Ring, 2 FDDI, 3 PPP, 13 FireWire",
        [](const Row& row) { return AdapterTypeIdOf(row); }},
    {u"AutoSense", boolean},
    {u"Availability", uint16, 0, "3 switched on, 8 off", [](const Row& row) { return row.interface.isUp ? 3 : 8; }},
    {u"Caption", string, Need::device, "as Description", productIn},
    {u"ConfigManagerErrorCode", uint32, 0, "0 switched on, 22 off", [](const Row& row) { return row.interface.isUp ? 0 : 22; }},
    {u"ConfigManagerUserConfig", boolean, 0, "always FALSE: the kernel sets devices up", [](const Row&) { return false; }},
    {u"CreationClassName", string, 0, "this class", [](const Row&) { return u"Win32_NetworkAdapter"; }},
    {u"Description", string, Need::device, "the product, else the driver, else the kind of interface, else its name", productIn},
    {u"DeviceID", string, 0, "as Index", [](const Row& row) { return std::to_string(row.interface.index); }},
    {u"ErrorCleared", boolean},
    {u"ErrorDescription", string},
    {u"GUID", string, 0, "the interface, such as eth0; the same as SettingID of its configuration", nameIn},
    {u"Index", uint32, 0, "the kernel's number for the interface", indexIn},
    {u"InstallDate", datetime},
    {u"Installed", boolean, 0, "always TRUE", [](const Row&) { return true; }},
    {u"InterfaceIndex", uint32, 0, "as Index", indexIn},
    {u"LastErrorCode", uint32},
    {u"MACAddress", string, Need::macAddress, "of Ethernet, such as 00:1A:2B:3C:4D:5E", macAddressIn},
    {u"Manufacturer", string, Need::device, "of the hardware database", [](const Row& row) { return facts::KnownText(row.device.vendor); }},
    {u"MaxNumberControlled", uint32, 0, "always 0: not known", [](const Row&) { return 0; }},
    {u"MaxSpeed", uint64},
    {u"Name", string, 0, "the interface, such as eth0", nameIn},
    {u"NetConnectionID", string, 0, "as Name", nameIn},
    {u"NetConnectionStatus", uint16, Need::connection, "2 connected, 7 nothing at the other end, 0 switched off",
        [](const Row& row) { return ConnectionStatusOf(row); }},
    {u"NetEnabled", boolean, Need::connection, "whether it is connected", [](const Row& row) { return ConnectionStatusOf(row) == connected; }},
    {u"NetworkAddresses", ArrayOf(string)},
    {u"PermanentAddress", string},
    {u"PhysicalAdapter", boolean, Need::device, "whether there is hardware behind it, real or a virtual machine's",
        [](const Row& row) { return !row.device.place.empty(); }},
    {u"PNPDeviceID", string, Need::device, "the hardware's path below /sys/devices", [](const Row& row) { return facts::KnownText(row.device.place); }},
    {u"PowerManagementCapabilities", ArrayOf(uint16)},
    {u"PowerManagementSupported", boolean, 0, "always FALSE: nothing switches its power through this class", [](const Row&) { return false; }},
    {u"ProductName", string, Need::device, "as Description", productIn},
    {u"ServiceName", string, Need::device, "the driver", driverIn},
    {u"Speed", uint64, Need::speed, "bits per second, if the driver tells", [](const Row& row) { return row.speed; }},
    {u"Status", string, 0, "always OK", [](const Row&) { return u"OK"; }},
    {u"StatusInfo", uint16, 0, "3 switched on, 4 off", [](const Row& row) { return row.interface.isUp ? 3 : 4; }},
    {u"SystemCreationClassName", string, 0, "the computer's class", [](const Row&) { return u"Win32_ComputerSystem"; }},
    {u"SystemName", string, Need::host, "the computer's name", [](const Row& row) { return row.surroundings->host; }},
    {u"TimeOfLastReset", datetime},
};

constexpr PropertyInfo configurationProperties[] = {
    {u"ArpAlwaysSourceRoute", boolean},
    {u"ArpUseEtherSNAP", boolean},
    {u"Caption", string, Need::device, "as Description", productIn},
    {u"DatabasePath", string, 0, "always /etc: of hosts, networks and protocols", [](const Row&) { return u"/etc"; }},
    {u"DeadGWDetectEnabled", boolean},
    {u"DefaultIPGateway", ArrayOf(string), Need::gateways, "of its default routes, IPv4 and IPv6",
        [](const Row& row) { return ListOfEach(row.gateways, &facts::DefaultRoute::gateway); }},
    {u"DefaultTOS", uint8},
    {u"DefaultTTL", uint8},
    {u"Description", string, Need::device, "the product, else the driver, else the kind of interface, else its name", productIn},
    {u"DHCPEnabled", boolean, Need::addresses, "whether it has an IPv4 address for a limited time, as leases give them",
        [](const Row& row) { return row.leaseSeconds.has_value(); }},
    {u"DHCPLeaseExpires", datetime, Need::addresses, "when that address is no longer valid", [](const Row& row) { return LeaseEndIn(row); }},
    {u"DHCPLeaseObtained", datetime},
    {u"DHCPServer", string},
    {u"DNSDomain", string, Need::addresses | Need::resolver, "the first domain of resolv.conf, if IPEnabled",
        [](const Row& row) { return DomainIn(row); }},
    {u"DNSDomainSuffixSearchOrder", ArrayOf(string), Need::addresses | Need::resolver, "domains of resolv.conf, if IPEnabled",
        [](const Row& row) { return ResolverList(row, row.surroundings->resolver.domains); }},
    {u"DNSEnabledForWINSResolution", boolean, Need::addresses, "FALSE if IPEnabled: there is no WINS", [](const Row& row) { return FalseIfIp(row); }},
    {u"DNSHostName", string, Need::addresses | Need::host, "the computer's name, if IPEnabled",
        [](const Row& row) { return row.usesIp() ? CimValue(row.surroundings->host) : CimValue(); }},
    {u"DNSServerSearchOrder", ArrayOf(string), Need::addresses | Need::resolver, "name servers of resolv.conf, if IPEnabled",
        [](const Row& row) { return ResolverList(row, row.surroundings->resolver.servers); }},
    {u"DomainDNSRegistrationEnabled", boolean, Need::addresses, "FALSE if IPEnabled: interfaces do not enter names into DNS",
        [](const Row& row) { return FalseIfIp(row); }},
    {u"ForwardBufferMemory", uint32},
    {u"FullDNSRegistrationEnabled", boolean, Need::addresses, "as DomainDNSRegistrationEnabled", [](const Row& row) { return FalseIfIp(row); }},
    {u"GatewayCostMetric", ArrayOf(uint16), Need::gateways, "one for each of DefaultIPGateway",
        [](const Row& row) { return ListOfEach(row.gateways, &facts::DefaultRoute::metric); }},
    {u"IGMPLevel", uint8},
    {u"Index", uint32, 0, "the kernel's number for the interface", indexIn},
    {u"InterfaceIndex", uint32, 0, "as Index", indexIn},
    {u"IPAddress", ArrayOf(string), Need::addresses, "IPv4 and IPv6", [](const Row& row) { return ListOfEach(row.addresses, &facts::InterfaceAddress::text); }},
    {u"IPConnectionMetric", uint32, Need::gateways, "the lowest metric of its IPv4 default routes, if there is one",
        [](const Row& row) { return row.metric; }},
    {u"IPEnabled", boolean, Need::addresses, "whether it is switched on and has an address", [](const Row& row) { return row.usesIp(); }},
    {u"IPFilterSecurityEnabled", boolean, Need::addresses, "FALSE if IPEnabled: interfaces have no filter of their own, but the system's firewall",
        [](const Row& row) { return FalseIfIp(row); }},
    {u"IPPortSecurityEnabled", boolean},
    {u"IPSecPermitIPProtocols", ArrayOf(string)},
    {u"IPSecPermitTCPPorts", ArrayOf(string)},
    {u"IPSecPermitUDPPorts", ArrayOf(string)},
    {u"IPSubnet", ArrayOf(string), Need::addresses, "one for each of IPAddress", [](const Row& row) { return ListOfEach(row.addresses, &facts::InterfaceAddress::subnet); }},
    {u"IPUseZeroBroadcast", boolean},
    {u"IPXAddress", string},
    {u"IPXEnabled", boolean, 0, "always FALSE: Linux has no IPX", [](const Row&) { return false; }},
    {u"IPXFrameType", ArrayOf(uint32)},
    {u"IPXMediaType", uint32},
    {u"IPXNetworkNumber", ArrayOf(string)},
    {u"IPXVirtualNetNumber", string},
    {u"KeepAliveInterval", uint32},
    {u"KeepAliveTime", uint32},
    {u"MACAddress", string, Need::macAddress, "of Ethernet, such as 00:1A:2B:3C:4D:5E", macAddressIn},
    {u"MTU", uint32, Need::mtu, "bytes", [](const Row& row) { return row.mtu; }},
    {u"NumForwardPackets", uint32},
    {u"PMTUBHDetectEnabled", boolean},
    {u"PMTUDiscoveryEnabled", boolean},
    {u"ServiceName", string, Need::device, "the driver", driverIn},
    {u"SettingID", string, 0, "the interface, such as eth0; the same as GUID of the adapter", nameIn},
    {u"TcpipNetbiosOptions", uint32},
    {u"TcpMaxConnectRetransmissions", uint32},
    {u"TcpMaxDataRetransmissions", uint32},
    {u"TcpNumConnections", uint32},
    {u"TcpUseRFC1122UrgentPointer", boolean},
    {u"TcpWindowSize", uint16},
    {u"WINSEnableLMHostsLookup", boolean, Need::addresses, "FALSE if IPEnabled: there is no WINS", [](const Row& row) { return FalseIfIp(row); }},
    {u"WINSHostLookupFile", string},
    {u"WINSPrimaryServer", string},
    {u"WINSScopeID", string},
    {u"WINSSecondaryServer", string},
};
// clang-format on

/// Reads the default routes of IPv4 and, if the kernel has it, IPv6; false if the kernel does not tell.
bool ReadDefaultRoutes(Surroundings& surroundings) {
    const std::optional<std::string> text = platform::ReadSystemFile("/proc/net/route");
    if (!text) return false;
    surroundings.metrics = facts::ParseDefaultMetrics(*text);
    surroundings.defaultRoutes = facts::ParseDefaultRoutes(*text);
    const std::vector<facts::DefaultRoute> routes6 =
        facts::ParseDefaultRoutes6(platform::ReadSystemFile("/proc/net/ipv6_route").value_or(std::string()));
    surroundings.defaultRoutes.insert(surroundings.defaultRoutes.end(), routes6.begin(), routes6.end());
    return true;
}

/// Absent, with a notice, if the kernel does not tell of addresses or routes.
std::optional<Surroundings> ReadSurroundings(const Gathering& gathering) {
    Surroundings surroundings;
    if (gathering.asksFor(Need::host)) surroundings.host = facts::HostName();
    if (gathering.asksFor(Need::addresses)) {
        std::optional<std::vector<facts::InterfaceAddress>> addresses = facts::ReadInterfaceAddresses();
        if (!addresses) {
            gathering.notice("Network adapters were left out: the kernel does not list addresses");
            return std::nullopt;
        }
        surroundings.addresses = std::move(*addresses);
    }
    if (gathering.asksFor(Need::resolver)) {
        surroundings.resolver =
            facts::ParseResolverSettings(ReadPart("/etc/resolv.conf", "Name servers and domains", gathering));
    }
    if (gathering.asksFor(Need::gateways) && !ReadDefaultRoutes(surroundings)) {
        FailedFile("/proc/net/route", "Network adapters", gathering);
        return std::nullopt;
    }
    return surroundings;
}

std::optional<std::string> ReadMacAddress(const facts::NetworkInterface& interface) {
    if (interface.linkType != ARPHRD_ETHER) return std::nullopt;
    std::optional<std::string> address = facts::ReadSystemLine("/sys/class/net/" + interface.name + "/address");
    if (!address) return std::nullopt;
    for (char& digit : *address) digit = digit >= 'a' && digit <= 'f' ? static_cast<char>(digit - 'a' + 'A') : digit;
    return address;
}

void FillRow(const Gathering& gathering, Row& row) {
    const facts::NetworkInterface& interface = row.interface;
    const std::string folder = "/sys/class/net/" + interface.name;
    if (gathering.asksFor(Need::device)) row.device = facts::ReadInterfaceDevice(interface);
    if (gathering.asksFor(Need::macAddress)) row.macAddress = ReadMacAddress(interface);
    if (gathering.asksFor(Need::connection))
        row.hasConnection = facts::ReadSystemNumber(folder + "/carrier").value_or(0) != 0;
    if (gathering.asksFor(Need::speed)) row.speed = facts::InterfaceSpeed(interface.name);
    if (gathering.asksFor(Need::mtu)) row.mtu = facts::ReadSystemNumber(folder + "/mtu");
    for (const facts::DefaultRoute& route : row.surroundings->defaultRoutes) {
        if (route.interface == interface.name) row.gateways.push_back(route);
    }
    const auto metric = row.surroundings->metrics.find(interface.name);
    if (metric != row.surroundings->metrics.end()) row.metric = metric->second;
    for (const facts::InterfaceAddress& address : row.surroundings->addresses) {
        if (address.interfaceIndex != interface.index) continue;
        row.addresses.push_back(address);
        if (address.isVersion4 && address.secondsLeft) row.leaseSeconds = address.secondsLeft;
    }
}

WmiStatus GatherAdapters(const Gathering& gathering) {
    const std::optional<Surroundings> surroundings = ReadSurroundings(gathering);
    std::optional<std::vector<facts::NetworkInterface>> interfaces = facts::ListNetworkInterfaces();
    if (!surroundings) return wmi_status::providerFailure;
    if (!interfaces) return FailedFile("/sys/class/net", "Network adapters", gathering);
    for (facts::NetworkInterface& interface : *interfaces) {
        Row row;
        row.interface = std::move(interface);
        row.surroundings = &*surroundings;
        FillRow(gathering, row);
        if (!gathering.row(&row)) break;
    }
    return wmi_status::ok;
}

constexpr ClassInfo classes[] = {
    {u"Win32_NetworkAdapter", u"CIM_NetworkAdapter", adapterProperties, GatherAdapters, u"DeviceID",
     "network interfaces but the loopback: hardware, speed, state"},
    {u"Win32_NetworkAdapterConfiguration", u"CIM_Setting", configurationProperties, GatherAdapters, u"Index",
     "IP on these interfaces: addresses, gateways, DHCP, name servers"},
};

const ClassFamily family([] { return std::span<const ClassInfo>(classes); });

}  // namespace

}  // namespace kv::wql
