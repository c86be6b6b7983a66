// How finished record files get to the server: packed into zips, posted, and deleted once accepted. "zipdata" is the
// queue that outlives outages and restarts. The same loop stops collection at a failed upload that comes too
// long after the first one (gv_CSContactLostTime), and starts it again. Everything here runs on the one thread of
// StripTxtFiles.
#pragma once

#include <cstdint>
#include <string_view>

namespace kv {

/// Text files in one zip at most.
inline constexpr int maxFilesInZip = 2501;

/// Thread body: waits a minute, then packs and uploads. A pass begins 5 to 10 seconds after gv_writeInterval has passed
/// since the start of the last one, or 5 seconds after a longer pass. Never returns.
std::uint32_t StripTxtFiles(void* ignored);

/// One packing pass over "data". A zip's path is nameBase, the next number and ".zip". A record file that no zip can
/// take is logged as lost and deleted like the others. Files that cannot be opened, or for which the disk has no room,
/// stay for the next pass, with a line at level 1.
void PackRecordFiles(std::u16string_view nameBase);

/// One upload pass over "zipdata". Each zip is uploaded once, by InternetUploadBinaryFile, as soon as nobody writes to
/// it any more; an accepted one is deleted, any other stays for the next pass. All that are found are sent; zipCount
/// only reserves room for their names.
void SendDetailstoCS(int zipCount);

}  // namespace kv
