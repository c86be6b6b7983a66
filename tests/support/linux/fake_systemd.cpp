#include "tests/support/linux/fake_systemd.h"

#include <array>
#include <cstdlib>
#include <fmt/format.h>
#include <fnmatch.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace kv::test {

namespace {

template <class... Values>
int Reply(sd_bus_message* call, const char* types, Values... values) {
    return sd_bus_reply_method_return(call, types, values...);
}

int ReplyProperty(sd_bus_message* call, FakeUnit unit, const std::string& name) {
    if (name == "ExecStart") {
        return Reply(call, "v", "a(sasbttttuii)", 1, "/bin/x", 3, "x", "-v", "1", 0, 0ul, 0ul, 0ul, 0ul, 0u, 0, 0);
    }
    unit.properties.insert({{"FragmentPath", unit.file}, {"FreezerState", "running"}, {"User", ""}, {"CanStop", "1"}});
    const std::string value = unit.properties[name];
    if (name.starts_with("ExecMain")) return Reply(call, "v", "i", std::atoi(value.c_str()));
    if (name == "CanStop" || name == "ConditionResult") return Reply(call, "v", "b", std::atoi(value.c_str()));
    if (name == "MainPID") return Reply(call, "v", "u", std::atoi(value.c_str()));
    if (name == "TimersCalendar") {
        return value.empty() ? Reply(call, "v", "a(sst)", 0)
                             : Reply(call, "v", "a(sst)", 1, "OnCalendar", value.c_str(), std::uint64_t{0});
    }
    if (name == "TimersMonotonic") {
        return value.empty() ? Reply(call, "v", "a(stt)", 0)
                             : Reply(call, "v", "a(stt)", 1, value.c_str(), std::uint64_t{1}, std::uint64_t{0});
    }
    if (name.ends_with("Timestamp") || name.find("USec") != std::string::npos)
        return Reply(call, "v", "t", std::strtoull(value.c_str(), nullptr, 10));
    if (!name.ends_with("By") && !name.ends_with("Of")) return Reply(call, "v", "s", value.c_str());
    std::array<std::string, 3> texts;
    std::istringstream words(value);
    int count = 0;
    while (count < 3 && words >> texts.at(static_cast<std::size_t>(count))) ++count;
    return Reply(call, "v", "as", count, texts[0].c_str(), texts[1].c_str(), texts[2].c_str());
}

/// Adds a unit to a list. Asking for a unit by name loads it.
void AppendUnit(sd_bus_message* list, FakeUnit unit) {
    const char* load = unit.load.empty() ? "loaded" : unit.load.c_str();
    sd_bus_message_append(list, "(ssssssouso)", unit.id.c_str(), unit.properties["Description"].c_str(), load,
                          unit.active.c_str(), unit.active.c_str(), "", "/", 0u, unit.job.c_str(), "/");
}

std::vector<std::string> ReadTexts(sd_bus_message* call) {
    std::vector<std::string> texts;
    sd_bus_message_enter_container(call, 'a', "s");
    for (const char* text = nullptr; sd_bus_message_read(call, "s", &text) > 0;) texts.emplace_back(text);
    sd_bus_message_exit_container(call);
    return texts;
}

}  // namespace

FakeSystemd::FakeSystemd(std::vector<FakeUnit> units, BusFault fault)
    : units_(std::move(units)), fault_(std::move(fault)) {
    const std::string name = fmt::format("kv_test_bus_{}", getpid());
    sockaddr_un address{AF_UNIX, {}};
    name.copy(address.sun_path + 1, name.size());  // an abstract name, without a file
    listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const std::size_t length = offsetof(sockaddr_un, sun_path) + 1 + name.size();
    bind(listener_, reinterpret_cast<const sockaddr*>(&address), static_cast<socklen_t>(length));
    listen(listener_, 1);
    setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:abstract=" + name).c_str(), 1);
    if (fault_.at == "accept") return;
    thread_ = std::thread([this] {
        for (int peer = 0; peer >= 0;) {
            peer = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
            if (peer >= 0) Serve(peer_ = peer);
        }
    });
}

FakeSystemd::~FakeSystemd() {
    shutdown(listener_, SHUT_RDWR);
    shutdown(peer_, SHUT_RDWR);  // of a client that is still connected
    if (thread_.joinable()) thread_.join();
    close(listener_);
    unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
}

std::string FakeSystemd::Deeds() {
    const std::lock_guard hold(lock_);
    return std::exchange(deeds_, {});
}

FakeUnit FakeSystemd::FindUnit(const std::string& name) const {
    for (const FakeUnit& unit : units_) {
        if (unit.id == name || unit.alias == name) return unit;
    }
    return {.id = name, .load = "not-found"};
}

int FakeSystemd::List(sd_bus_message* call, const std::string& member) {
    const bool isByName = member == "ListUnitsByNames";
    const bool isOfFiles = member == "ListUnitFilesByPatterns";
    if (!isByName) ReadTexts(call);  // states
    sd_bus_message* list = nullptr;
    sd_bus_message_new_method_return(call, &list);
    sd_bus_message_open_container(list, 'a', isOfFiles ? "(ss)" : "(ssssssouso)");
    for (const std::string& asked : ReadTexts(call)) {
        if (isByName) AppendUnit(list, FindUnit(asked));
        for (const FakeUnit& unit : units_) {
            const std::string& state = isOfFiles ? unit.fileState : unit.load;
            if (isByName || state.empty() || fnmatch(asked.c_str(), unit.id.c_str(), FNM_NOESCAPE) != 0) continue;
            if (!isOfFiles) AppendUnit(list, unit);
            if (isOfFiles) sd_bus_message_append(list, "(ss)", unit.file.c_str(), state.c_str());
        }
    }
    sd_bus_message_close_container(list);
    sd_bus_send(nullptr, list, nullptr);
    sd_bus_message_unref(list);
    return 1;
}

int FakeSystemd::Do(sd_bus_message* call, const std::string& member) {
    const char* name = "";
    if (member.ends_with("Files")) sd_bus_message_enter_container(call, 'a', "s");
    if (member != "Reload") sd_bus_message_read(call, "s", &name);
    deeds_ += member + (*name != '\0' ? " " : "") + name + ", ";
    for (FakeUnit& unit : units_) {
        if (unit.id != name) continue;
        if (member == "StartUnit" || member == "StopUnit") unit.job = member == "StartUnit" ? "start" : "stop";
        if (member == "FreezeUnit" || member == "ThawUnit") {
            unit.properties["FreezerState"] = member == "FreezeUnit" ? "frozen" : "running";
        }
    }
    return Reply(call, "");  // nobody reads the job
}

int FakeSystemd::Answer(sd_bus_message* call, void* self, sd_bus_error*) {
    FakeSystemd& fake = *static_cast<FakeSystemd*>(self);
    const std::lock_guard hold(fake.lock_);
    if (sd_bus_message_is_method_call(call, nullptr, nullptr) <= 0) return 0;  // the client hung up
    const std::string member = sd_bus_message_get_member(call);
    const char *interface = nullptr, *property = "";
    if (member == "Get") sd_bus_message_read(call, "ss", &interface, &property);
    if (member + property == fake.fault_.at) {
        fake.isHangingUp_ = fake.fault_.what == "hang up";
        const bool isSilent = fake.isHangingUp_ || fake.fault_.what.empty();
        return isSilent ? 1 : sd_bus_reply_method_errorf(call, fake.fault_.what.c_str(), "no");
    }
    if (member == "Hello") return Reply(call, "s", ":1.1");
    if (member != "Get") return member.starts_with("List") ? fake.List(call, member) : fake.Do(call, member);
    char* id = nullptr;
    sd_bus_path_decode(sd_bus_message_get_path(call), "/org/freedesktop/systemd1/unit", &id);
    const FakeUnit unit = fake.FindUnit(id == nullptr ? "" : id);
    std::free(id);
    return ReplyProperty(call, unit, property);
}

void FakeSystemd::Serve(int peer) {
    sd_bus* bus = nullptr;
    sd_bus_new(&bus);
    sd_bus_set_fd(bus, peer, peer);
    sd_bus_set_server(bus, 1, {});
    sd_bus_set_trusted(bus, 1);
    sd_bus_add_filter(bus, nullptr, Answer, this);
    sd_bus_start(bus);
    isHangingUp_ = false;
    for (int result = 0; result >= 0 && !isHangingUp_;) {
        result = sd_bus_process(bus, nullptr);
        if (result == 0) result = sd_bus_wait(bus, UINT64_MAX);
    }
    peer_ = -1;
    sd_bus_close_unref(bus);
}

}  // namespace kv::test
