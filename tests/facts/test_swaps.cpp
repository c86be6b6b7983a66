// Texts of /proc/swaps and /etc/fstab.
#include <fmt/format.h>
#include <gmock/gmock.h>

#include "facts/storage/swaps.h"

namespace kv::test {
namespace {

using namespace facts;
using testing::ElementsAre;

TEST(Swaps, AreReadFromTheKernelsList) {
    std::vector<std::string> seen;
    for (const Swap& swap : ParseSwaps("Filename\t\t\t\tType\t\tSize\t\tUsed\t\tPriority\n"
                                       "/dev/dm-1                               partition\t8388604\t\t1024\t\t-2\n"
                                       "/my\\040swap\\134file                   file\t\t2097148\t0\t\t5\n"
                                       "/gone\\040(deleted)                     file\t\t1020\t20\t\t-3\n"
                                       "/dev/cut partition 12\n")) {
        seen.push_back(fmt::format("{}|{}|{}|{}", swap.path, swap.isFile, swap.size, swap.used));
    }
    EXPECT_THAT(seen,
                ElementsAre("/dev/dm-1|false|8388604|1024", "/my swap\\file|true|2097148|0", "/gone|true|1020|20"));
}

TEST(Fstab, IsReadAsPeopleWriteIt) {
    std::vector<std::string> seen;
    for (const FstabEntry& entry :
         ParseFstab("# <file system> <mount point> <type>\n\nUUID=1-2 / ext4 errors=remount-ro 0 1\n"
                    "\t/dev/sdb1\t/my\\040data xfs  rw,noauto,nofail\n"
                    "broken line\n#/dev/sdc1 /old ext3\n/dev/sdd1 /slashes// ext4\n/swapfile none swap")) {
        seen.push_back(fmt::format("{}|{}|{}|{}", entry.source, entry.mountPoint, entry.fileSystem, entry.isAutomatic));
    }
    EXPECT_THAT(seen, ElementsAre("UUID=1-2|/|ext4|true", "/dev/sdb1|/my data|xfs|false",
                                  "/dev/sdd1|/slashes|ext4|true", "/swapfile|none|swap|true"));
}

}  // namespace
}  // namespace kv::test
