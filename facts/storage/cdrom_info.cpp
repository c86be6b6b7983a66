#include "facts/storage/cdrom_info.h"

#include "facts/system_text.h"

namespace kv::facts {

namespace {

void TakeFigure(CdDriveInfo& drive, std::string_view key, std::string_view field) {
    const std::uint64_t figure = NumberOf(field).value_or(0);
    if (key == "drive speed") drive.speed = figure;
    if (key == "drive # of slots") drive.slots = figure;
    if (key == "Can read DVD") drive.readsDvd = figure != 0;
    if (key == "Can write CD-R" || key == "Can write CD-RW") drive.writesCd = drive.writesCd || figure != 0;
    if (key == "Can write DVD-R" || key == "Can write DVD-RAM") drive.writesDvd = drive.writesDvd || figure != 0;
}

}  // namespace

std::vector<CdDriveInfo> ParseCdromInfo(std::string_view text) {
    std::vector<CdDriveInfo> drives;
    for (std::string_view line; TakeLine(text, line);) {
        const std::size_t colon = line.find(':');
        if (colon == std::string_view::npos) continue;
        const std::string_view key = line.substr(0, colon);
        std::string_view fields = line.substr(colon + 1);
        std::size_t column = 0;
        for (std::string_view field = TakeField(fields); !field.empty(); field = TakeField(fields), ++column) {
            if (key == "drive name") drives.emplace_back().name = field;
            if (column < drives.size()) TakeFigure(drives[column], key, field);
        }
    }
    return drives;
}

}  // namespace kv::facts
