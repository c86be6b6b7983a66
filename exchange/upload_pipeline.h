// The way of finished record files to the server: packed into zips, posted, and deleted once accepted. "zipdata" is the
// store-and-forward queue across outages and restarts; the same loop stops collection when uploads have failed too
// long. Everything here runs on the one thread of StripTxtFiles.
#pragma once

#include <cstdint>
#include <string_view>

namespace kv {

/// Text files in one zip at most.
inline constexpr int maxFilesInZip = 2501;

/// Thread body: waits a minute, then packs and uploads once every gv_writeInterval seconds. Never returns.
std::uint32_t StripTxtFiles(void* ignored);

/// One packing pass over "data". A zip's path is nameBase, the next number and ".zip". Record files that could not be
/// packed are logged as lost; they are deleted like the others. Those that cannot be opened, and those for which the
/// disk has no room, stay for the next pass, with a line at level 1.
void PackRecordFiles(std::u16string_view nameBase);

/// One upload pass over "zipdata", of which zipCount zips are expected. An accepted zip is deleted, any other stays.
void SendDetailstoCS(int zipCount);

}  // namespace kv
