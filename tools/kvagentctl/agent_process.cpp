#include "tools/kvagentctl/agent_process.h"

#include <utility>

#include "foundation/log.h"

namespace kv::control {

LogLines::LogLines(std::function<void(std::string_view line)> take, unsigned level) {
    const std::lock_guard lock(logState.streamMutex);
    logState.listener = std::move(take);
    logState.gv_logLevel = level;
}

LogLines::~LogLines() {
    logState.gv_logLevel = 0;
    const std::lock_guard lock(logState.streamMutex);
    logState.listener = nullptr;
}

}  // namespace kv::control
