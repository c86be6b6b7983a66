// Win32_VideoController: what drives the displays.
#pragma once

#include <string>

#include "wql/wmi_class.h"

namespace kv::wql {

struct VideoSources {
    std::string root;                       // the kernel's tree, such as /sys
    std::string (*readPciIds)() = nullptr;  // gives a text of pci.ids
};

/// Gathers the controllers. Fails if the tree is there and cannot be read.
WmiStatus GatherVideoControllers(const Gathering& gathering, const VideoSources& sources);

}  // namespace kv::wql
