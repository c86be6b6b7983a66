// kvreg and files on Linux.
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
    const Outcome full = Run({"export", "/dev/full"});
    EXPECT_EQ(full.exitCode, 1);
    EXPECT_THAT(full.errors, HasSubstr("No space left on device"));
    EXPECT_THAT(Run({"export", folder / "missing" / "x"}).errors, HasSubstr("No such file or directory"));
    EXPECT_THAT(Run({"set", "A", "b", "\xFF"}).errors, HasSubstr("not UTF-8"));
}

}  // namespace

}  // namespace kv::test
