#include <algorithm>

#include "commandline/run.h"
#include "lab/commands/kvlab.h"

int main(int count, char** arguments) {
    const int ownName = std::min(count, 1);
    return kv::commandline::RunCommandLine(kv::lab::LabProgram(), {arguments + ownName, arguments + count});
}
