// Acts as a user without rights.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

namespace kv::test {

/// While one lives, this process may do what an ordinary user may, if it is the superuser's.
struct Nobody {
    const uid_t before = geteuid();
    Nobody() { EXPECT_EQ(before == 0 ? setresuid(65534, 65534, 0) : 0, 0); }
    ~Nobody() { EXPECT_EQ(before == 0 ? setresuid(0, 0, 0) : 0, 0); }
    Nobody(const Nobody&) = delete;
    Nobody& operator=(const Nobody&) = delete;
};

}  // namespace kv::test
