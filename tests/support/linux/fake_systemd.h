// A bus and a systemd in one, on a thread of this process. DBUS_SYSTEM_BUS_ADDRESS names it while it lives.
#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <systemd/sd-bus.h>
#include <thread>
#include <vector>

namespace kv::test {

/// The words are systemd's. A start or stop leaves a job that waits; freezing and thawing take effect at once.
struct FakeUnit {
    std::string id;  // "": the manager itself, for its properties
    std::string active = "inactive";
    std::string load = "loaded";                         // "": only loaded when somebody asks for it
    std::string job = {};                                // the kind of job that waits
    std::string alias = {};                              // another name
    std::string file = {};                               // its path
    std::string fileState = {};                          // "": the file is not listed
    std::map<std::string, std::string> properties = {};  // numbers in decimal; lists: up to three words
};

/// What goes wrong at one call.
struct BusFault {
    std::string at;    // a method, or "Get" and a property; "accept": the connection is never served
    std::string what;  // the error that answers it; "": no answer; "hang up"
};

class FakeSystemd {
  public:
    explicit FakeSystemd(std::vector<FakeUnit> units, BusFault fault = {});
    ~FakeSystemd();
    FakeSystemd(const FakeSystemd&) = delete;
    FakeSystemd& operator=(const FakeSystemd&) = delete;

    /// What it was told to do since the last call, without questions: "StartUnit a.service, Reload, ".
    std::string Deeds();

  private:
    static int Answer(sd_bus_message* call, void* self, sd_bus_error* failure);
    int List(sd_bus_message* call, const std::string& member);
    int Do(sd_bus_message* call, const std::string& member);
    FakeUnit FindUnit(const std::string& name) const;
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
