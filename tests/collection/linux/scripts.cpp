#include "tests/collection/scripts.h"

namespace kv::test {

std::string ScriptText(const std::string& lines) { return "#!/bin/sh\n" + lines + "\n"; }

const std::string lineEnd = "\n";
const std::string printArguments = "echo \"$1,$2,$3,$4,$5\"";
const std::string printFile = "cat ";

}  // namespace kv::test
