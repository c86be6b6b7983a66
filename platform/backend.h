// Installs this system's own records of operations behind every header of this folder.
#pragma once

namespace platform {

/// Makes the records of the running system the current ones. Called once, first thing in every program and test.
void InstallBackend();

}  // namespace platform
