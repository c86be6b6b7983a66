#include "platform/posix/wmi_classes/product.h"

#include <algorithm>
#include <cctype>

#include "platform/posix/wmi_classes/smbios.h"

namespace platform::wmi {

namespace {

/// The maker in "raspberrypi,4-model-b".
std::optional<std::string> ReadDeviceTreeVendor() {
    const std::optional<std::string> compatible = ReadDeviceTree("compatible");
    return compatible ? std::optional(compatible->substr(0, compatible->find(','))) : std::nullopt;
}

std::optional<std::string> ReadUuid() {
    std::optional<std::string> uuid = ReadDmi("product_uuid");
    if (!uuid) return std::nullopt;
    std::ranges::transform(*uuid, uuid->begin(), [](unsigned char letter) { return std::toupper(letter); });
    return uuid;
}

}  // namespace

Product ReadProduct() {
    Product product{.vendor = ReadDmi("sys_vendor"),
                    .name = ReadDmi("product_name"),
                    .version = ReadDmi("product_version"),
                    .serialNumber = ReadDmi("product_serial"),
                    .uuid = ReadUuid(),
                    .stockNumber = ReadDmi("product_sku"),
                    .family = ReadDmi("product_family")};
    if (product.isKnown()) return product;
    product.vendor = ReadDeviceTreeVendor();
    product.name = ReadDeviceTree("model");
    product.serialNumber = ReadDeviceTree("serial-number");
    return product;
}

}  // namespace platform::wmi
