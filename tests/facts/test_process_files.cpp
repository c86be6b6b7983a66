// Names and command lines of processes.
#include <gtest/gtest.h>
#include <tuple>

#include "facts/processes/process_files.h"

namespace kv::test {
namespace {

using namespace facts;
using namespace std::string_literals;

TEST(ProcessFiles, GiveWholeNamesAndCommandLines) {
    EXPECT_EQ(CommandLineOf("a\0b c\0\0\xff\0\0"s), "a b c  \xff");
    EXPECT_EQ(CommandLineOf(std::string(99999, 'x')).size(), 32767u);
    const std::tuple<const char*, const char*, std::string, const char*> rows[] = {
        {"the kernel cut the name", "systemd-journal", "/lib/systemd/systemd-journald\0-x"s, "systemd-journald"},
        {"a short name is whole", "systemd", "/lib/systemd/systemd-journald"s, "systemd"},
        {"the name of a script", "fifteen-letters", "/bin/sh\0-e\0/bin/fifteen-letters-more"s, "fifteen-letters-more"},
        {"an argument further on", "fifteen-letters", "x\0y\0z\0fifteen-letters-more"s, "fifteen-letters"},
        {"a title instead of arguments", "systemd-userwor", "systemd-userwork: waiting..."s, "systemd-userwork"},
    };
    for (const auto& [title, kernelName, arguments, name] : rows) {
        ProcessStat stat;
        stat.name = kernelName;
        EXPECT_EQ(ExecutableNameOf(stat, arguments), name) << title;
    }
}

}  // namespace
}  // namespace kv::test
