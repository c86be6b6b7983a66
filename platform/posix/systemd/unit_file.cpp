#include "platform/posix/systemd/unit_file.h"

namespace platform::systemd {

std::string UnitFileText(const UnitDescription&) { return {}; }

}  // namespace platform::systemd
