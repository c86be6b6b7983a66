#include "queryconf/config_reload.h"

namespace kv {

void RequestingConfigDetailstoCS(const OptionalText& /*confFileDldURL*/) {}
void ReloadQueryConfDetails(std::u16string_view /*agentKey*/) {}
void ReloadAndScheduleQueryData() {}

}  // namespace kv
