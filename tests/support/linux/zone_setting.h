// The time zone of a test.
#pragma once

#include <cstdlib>
#include <ctime>
#include <string>

namespace kv::test {

/// Sets the time zone of this process while it lives.
struct ZoneSetting {
    explicit ZoneSetting(const std::string& name) {
        setenv("TZ", name.c_str(), 1);
        tzset();
    }
    ~ZoneSetting() {
        unsetenv("TZ");
        tzset();
    }
};

}  // namespace kv::test
