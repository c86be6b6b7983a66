// kvreg and files on Linux.
#include <functional>
#include <sys/stat.h>

#include "tests/tools/kvreg_fixture.h"

namespace kv::test {

namespace {

TEST_F(Kvreg, ExportsForTheOwnerOnlyAndFollowsLinks) {
    ASSERT_EQ(Run({"set", key, "a", "b"}).exitCode, 0);
    fs::create_symlink(fs::path(file).filename(), folder / "link");
    ASSERT_EQ(Run({"export", folder / "link"}).exitCode, 0) << "through a link to a missing file";
    EXPECT_EQ(fs::status(file).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    const std::string whole = Read(file);
    ASSERT_EQ(Run({"export", folder / "link", key}).exitCode, 0);
    EXPECT_LT(Read(file).size(), whole.size());
    EXPECT_TRUE(fs::is_symlink(folder / "link"));
    EXPECT_EQ(Run({"export", "/dev/stdout"}).output, whole);
    Expect({"export", "/dev/full"}, 1, "", "No space left on device");
    EXPECT_THAT(Run({"export", folder / "missing" / "x"}).errors, HasSubstr("No such file or directory"));
    EXPECT_THAT(Run({"set", "A", "b", "\xFF"}).errors, HasSubstr("not UTF-8"));
    const fs::path registry = folder / "state" / "registry.db";
    fs::create_symlink("state/registry.db-journal", folder / "dangling");
    fs::create_hard_link(registry, folder / "hard");
    for (const fs::path& own :
         {registry, folder / "state/../state/registry.db-wal", folder / "dangling", folder / "hard"})
        EXPECT_THAT(Run({"export", own, "--force"}).errors, HasSubstr("belongs to the registry itself")) << own;
    Write(folder / "plan", "{}");
    EXPECT_THAT(Run({"export", folder / "plan"}).errors, HasSubstr("plan is not a .reg file; --force replaces it"));
    EXPECT_EQ(Read(folder / "plan"), "{}");
    EXPECT_EQ(Run({"export", folder / "plan", "--force"}).exitCode, 0);
}

TEST_F(Kvreg, SaysWhatIsWrongWithTheRegistrysFile) {
    const std::string registry = folder / "other" / "registry.db";
    const std::tuple<const char*, std::function<void()>, std::string> cases[] = {
        {"absent", [] {}, registry + " does not exist (is the agent installed"},
        {"garbage", [&] { Write(registry, std::string(5000, 'x')); }, registry + " is damaged, or not a registry"},
        {"directory", [&] { fs::create_directory(registry); }, registry + " is a directory; move it away"},
        {"pipe", [&] { mkfifo(registry.c_str(), 0600); }, registry + " is not a file; move it away"},
        {"no directory", [&] { Write(folder / "other", ""); }, "other is not a directory; KVAGENT_STATE_DIR"},
    };
    for (const auto& [title, spoil, told] : cases) {
        SCOPED_TRACE(title);
        fs::remove_all(folder / "other");
        if (!told.starts_with("other")) fs::create_directory(folder / "other");
        spoil();
        ShareRegistry(folder / "other");
        EXPECT_THAT(Run({"list", key}).errors, HasSubstr(told));
    }
    ShareRegistry(folder / "state");
}

}  // namespace

}  // namespace kv::test
