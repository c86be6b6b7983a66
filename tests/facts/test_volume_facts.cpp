// What kind of drive a mount is, and whether it may hang.
#include <gtest/gtest.h>
#include <tuple>

#include "facts/mount_space.h"
#include "facts/volume_facts.h"

namespace kv::test {
namespace {

using namespace facts;

TEST(Volumes, HaveKindsOfDrives) {
    const std::tuple<const char*, const char*, bool, DriveType> rows[] = {
        {"ext4", "/dev/none", false, DriveType::fixed},
        {"nfs4", "nas:/x", true, DriveType::network},
        {"fuse.sshfs", "me@nas:", true, DriveType::network},
        {"fuseblk", "/dev/disk/by-path/usb-0:1", true, DriveType::fixed},
        {"unheard-of", "x", true, DriveType::fixed},
        {"tmpfs", "tmpfs", false, DriveType::memory},
        {"squashfs", "/dev/none", false, DriveType::compactDisc},
    };
    for (const auto& [fileSystem, source, mayHang, kind] : rows) {
        Mount mount;
        mount.fileSystem = fileSystem;
        mount.source = source;
        EXPECT_EQ(MayHang(mount), mayHang) << fileSystem;
        EXPECT_EQ(DriveTypeOf(mount, ""), kind) << fileSystem;
    }
}

}  // namespace
}  // namespace kv::test
