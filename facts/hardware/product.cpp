#include "facts/hardware/product.h"

#include <algorithm>
#include <cctype>

#include "facts/hardware/smbios.h"

namespace kv::facts {

std::optional<std::string> ReadVendor() {
    if (std::optional<std::string> vendor = ReadDmi("sys_vendor")) return vendor;
    const std::optional<std::string> compatible = ReadDeviceTree("compatible");  // such as "raspberrypi,4-model-b"
    return compatible ? std::optional(compatible->substr(0, compatible->find(','))) : std::nullopt;
}

std::optional<std::string> ReadModel() {
    std::optional<std::string> model = ReadDmi("product_name");
    return model ? model : ReadDeviceTree("model");
}

std::optional<std::string> ReadSerialNumber() {
    std::optional<std::string> number = ReadDmi("product_serial");
    return number ? number : ReadDeviceTree("serial-number");
}

std::optional<std::string> ReadUuid() {
    std::optional<std::string> uuid = ReadDmi("product_uuid");
    if (!uuid) return std::nullopt;
    std::ranges::transform(*uuid, uuid->begin(), [](unsigned char letter) { return std::toupper(letter); });
    return uuid;
}

}  // namespace kv::facts
