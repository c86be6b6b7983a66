// Tests that need their own mounts, interfaces or connections run again in namespaces, so that nothing outlives them.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <string>

#include "tests/support/linux/shell.h"

namespace kv::test {

inline bool IsInNamespaces() { return std::getenv("KV_IN_NAMESPACES") != nullptr; }

/// Runs the current test again in new namespaces, after a line of the shell, which may not hold single quotes. Skips
/// the test where they cannot be made.
inline void RunInNamespaces(const std::string& flags, const std::string& preparation) {
    const auto* test = ::testing::UnitTest::GetInstance()->current_test_info();
    const ShellOutcome outcome =
        RunShell(fmt::format("(unshare {0} true || exit 77; export KV_IN_NAMESPACES=1; "
                             "unshare {0} sh -c '({1}) || exit 77; exec {2} --gtest_filter={3}.{4}') 2>&1",
                             flags, preparation, std::filesystem::read_symlink("/proc/self/exe").string(),
                             test->test_suite_name(), test->name()));
    if (outcome.exitCode == 77) GTEST_SKIP() << "namespaces cannot be made here: " << outcome.output;
    EXPECT_EQ(outcome.exitCode, 0) << outcome.output;
}

}  // namespace kv::test
