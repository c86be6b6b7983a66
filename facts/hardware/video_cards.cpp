#include "facts/hardware/video_cards.h"

#include <algorithm>
#include <filesystem>

#include "facts/hardware/devices.h"
#include "facts/storage/mounts.h"
#include "facts/system_text.h"

namespace kv::facts {

namespace {

namespace fs = std::filesystem;

/// The paths in a folder, sorted; empty when there is no such folder.
std::vector<fs::path> PathsIn(const fs::path& folder, std::error_code& failure) {
    std::vector<fs::path> paths;
    std::error_code reason;
    fs::directory_iterator at(folder, reason);
    for (const fs::directory_iterator end; !reason && at != end; at.increment(reason)) paths.push_back(at->path());
    if (reason && reason != std::errc::no_such_file_or_directory) failure = reason;
    std::ranges::sort(paths);
    return paths;
}

/// A card of the graphics system.
struct Card {
    std::string name;    // such as "card0"
    std::string device;  // the folder of its device, without links
};

std::vector<Card> ListCards(const fs::path& classFolder, std::error_code& failure) {
    std::vector<Card> cards;
    for (const fs::path& path : PathsIn(classFolder, failure)) {
        const std::string name = path.filename().string();
        if (!name.starts_with("card") || name.find('-') != std::string::npos) continue;  // "card0-DP-1" is a connector
        std::error_code hasNoDevice;
        const fs::path device = fs::canonical(path / "device", hasNoDevice);
        if (!hasNoDevice) cards.push_back({name, device.string()});
    }
    return cards;
}

std::optional<VideoMode> ModeOf(const std::vector<fs::path>& connectors, const std::string& card) {
    for (const fs::path& connector : connectors) {
        const std::string folder = connector.string();
        if (!connector.filename().string().starts_with(card + '-')) continue;
        if (ReadSystemLine(folder + "/enabled") != "enabled") continue;
        const std::string modes = ReadSystemLine(folder + "/modes").value_or("");
        if (const std::optional<VideoMode> mode = ParseVideoMode(modes.substr(0, modes.find('\n')))) return mode;
    }
    return std::nullopt;
}

std::optional<std::uint64_t> BitsPerPixelOf(const std::string& device) {
    std::error_code unused;
    for (const fs::path& buffer : PathsIn(device + "/graphics", unused)) {
        if (const auto bits = ReadSystemNumber((buffer / "bits_per_pixel").string())) return bits;
    }
    return std::nullopt;
}

std::optional<std::uint16_t> NumberAt(const std::string& path) {
    const std::optional<std::uint64_t> number = HexNumberOf(ReadSystemLine(path).value_or(""));
    return number ? std::optional(static_cast<std::uint16_t>(*number)) : std::nullopt;
}

/// The device in a folder; the card is null if the graphics system does not know it.
VideoCard ReadDevice(const fs::path& folder, const Card* drm, const std::vector<fs::path>& connectors) {
    VideoCard card;
    card.name = folder.filename().string();
    card.folder = folder.string();
    const std::string driven = drm != nullptr ? drm->device : card.folder;  // some cards are below a device of the bus
    card.driver = DriverOf(driven);
    card.moduleVersion = ReadSystemLine(driven + "/driver/module/version").value_or("");
    card.vendor = NumberAt(card.folder + "/vendor");
    card.product = NumberAt(card.folder + "/device");
    card.isFirmwares = ReadSystemNumber(card.folder + "/boot_vga").value_or(0) != 0;
    card.memory = ReadSystemNumber(card.folder + "/mem_info_vram_total");
    if (drm == nullptr) return card;
    card.mode = ModeOf(connectors, drm->name);
    card.bitsPerPixel = BitsPerPixelOf(drm->device);
    return card;
}

/// Drivers without hardware, and the buffer that the firmware set up on a card of the bus.
bool IsOfAnotherKind(const Card& card, bool hasCardsOnBus) {
    const std::string driver = DriverOf(card.device);
    return driver == "vkms" || driver == "vgem" || (driver == "simple-framebuffer" && hasCardsOnBus);
}

}  // namespace

std::optional<VideoMode> ParseVideoMode(std::string_view text) {
    const bool isInterlaced = text.ends_with('i');
    if (isInterlaced) text.remove_suffix(1);
    const std::size_t cross = std::min(text.find('x'), text.size());
    const std::optional<std::uint64_t> width = NumberOf(text.substr(0, cross));
    const std::optional<std::uint64_t> height = NumberOf(text.substr(std::min(cross + 1, text.size())));
    if (!width || !height) return std::nullopt;
    return VideoMode{static_cast<std::uint32_t>(*width), static_cast<std::uint32_t>(*height), isInterlaced};
}

VideoCards ReadVideoCards(const std::string& root) {
    constexpr std::uint64_t displayController = 3;
    constexpr unsigned kindBits = 16;  // below the class's own byte
    VideoCards found;
    const fs::path drmFolder = root + "/class/drm";
    const std::vector<fs::path> connectors = PathsIn(drmFolder, found.failure);
    std::vector<Card> others = ListCards(drmFolder, found.failure);
    for (const fs::path& path : PathsIn(root + "/bus/pci/devices", found.failure)) {
        const std::uint64_t pciClass = HexNumberOf(ReadSystemLine((path / "class").string()).value_or("")).value_or(0);
        if (pciClass >> kindBits != displayController) continue;
        std::error_code isGone;  // taken out since the folder was listed
        const std::string folder = fs::canonical(path, isGone).string();
        if (isGone) continue;
        const auto isItsCard = [&](const Card& card) { return card.device == folder || IsBelow(card.device, folder); };
        const auto drm = std::ranges::find_if(others, isItsCard);
        found.cards.push_back(ReadDevice(folder, drm != others.end() ? &*drm : nullptr, connectors));
        found.cards.back().pciClass = static_cast<std::uint32_t>(pciClass);
        std::erase_if(others, isItsCard);
    }
    const bool hasCardsOnBus = !found.cards.empty();
    for (const Card& card : others) {
        if (!IsOfAnotherKind(card, hasCardsOnBus)) found.cards.push_back(ReadDevice(card.device, &card, connectors));
    }
    return found;
}

}  // namespace kv::facts
