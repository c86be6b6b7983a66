// Acts as a user without rights.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

namespace kv::test {

/// While one lives, this process does what an ordinary user may do, if it is the superuser's.
struct Nobody {
    const uid_t before = geteuid();
    Nobody() { EXPECT_EQ(before == 0 ? seteuid(65534) : 0, 0); }
    ~Nobody() { EXPECT_EQ(before == 0 ? seteuid(before) : 0, 0); }
    Nobody(const Nobody&) = delete;
    Nobody& operator=(const Nobody&) = delete;
};

}  // namespace kv::test
