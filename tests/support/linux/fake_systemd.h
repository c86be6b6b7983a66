// A bus and a systemd in one, on a thread of this process: what DBUS_SYSTEM_BUS_ADDRESS names as long as it lives.
#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <systemd/sd-bus.h>
#include <thread>
#include <vector>

namespace kv::test {

/// Words are systemd's. Starting and stopping leave a job that waits; freezing and thawing are done at once.
struct FakeUnit {
    std::string id;  // "": the manager itself, for its properties
    std::string active = "inactive";
    std::string load = "loaded";                         // "": not until it is asked for
    std::string job = {};                                // what waits to be done
    std::string alias = {};                              // another name
    std::string file = {};                               // its path
    std::string fileState = {};                          // "": the file is not listed
    std::map<std::string, std::string> properties = {};  // numbers in decimal; up to three texts of a list, with blanks
};

/// What happens at a call, which is named by its method, a property's by "Get" and the property.
struct BusFault {
    std::string at;    // "accept": the connection is never looked at
    std::string what;  // the name of an error; "": no answer; "hang up"
};

class FakeSystemd {
  public:
    explicit FakeSystemd(std::vector<FakeUnit> units, BusFault fault = {});
    ~FakeSystemd();
    FakeSystemd(const FakeSystemd&) = delete;
    FakeSystemd& operator=(const FakeSystemd&) = delete;

    /// What it was told since the last look, without what it was asked: "StartUnit a.service, Reload, ".
    std::string Deeds();

  private:
    static int Answer(sd_bus_message* call, void* self, sd_bus_error* failure);
    int List(sd_bus_message* call, const std::string& member);
    int Do(sd_bus_message* call, const std::string& member);
    FakeUnit UnitOf(const std::string& name) const;
    void Serve(int peer);

    std::mutex lock_;
    std::vector<FakeUnit> units_;
    BusFault fault_;
    std::string deeds_;
    bool isHangingUp_ = false;
    int listener_ = -1;
    std::atomic<int> peer_ = -1;
    std::thread thread_;
};

}  // namespace kv::test
