// The way of finished record files to the server: packed into zips, posted, and deleted once accepted. "zipdata" is the
// store-and-forward queue across outages and restarts; the same loop stops collection when uploads have failed too long.
#pragma once

#include <cstdint>

namespace kv {

/// Text files in one zip at the most.
inline constexpr int maxFilesInZip = 2501;

/// Thread body: waits a minute, then packs and uploads once every gv_writeInterval seconds. Never returns.
std::uint32_t StripTxtFiles(void* ignored);

/// One packing pass over "data": how StripTxtFiles empties it. Deletes unfinished zips of an earlier run.
void PackRecordFiles();

/// One upload pass over "zipdata", of which zipCount zips are expected.
void SendDetailstoCS(int zipCount);

}  // namespace kv
