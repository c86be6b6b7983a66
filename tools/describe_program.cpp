// Prints what packages install beside a program, from the description of its commands.
//
//   describe_program NAME man TEMPLATE    its manual page, made from a template
//   describe_program NAME bash            its completion for bash
#include <cstdio>
#include <fmt/format.h>
#include <fstream>
#include <iterator>
#include <string_view>

#include "commandline/describe.h"
#include "lab/commands/kvlab.h"
#include "tools/kvagentctl/program.h"
#include "tools/kvreg/kvreg_commands.h"

namespace {

/// Null for an unknown name.
const kv::commandline::Program* Named(std::string_view name) {
    if (name == "kvagentctl") return &kv::ControlTool();
    if (name == "kvreg") return &kv::RegistryTool();
    if (name == "kvlab") return &kv::lab::LabProgram();
    return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string_view name = argc > 1 ? argv[1] : "";
    const std::string_view kind = argc > 2 ? argv[2] : "";
    const kv::commandline::Program* program = Named(name);
    std::string text;
    if (program && kind == "bash") {
        text = kv::commandline::BashCompletion(*program);
    } else if (program && kind == "man" && argc > 3) {
        std::ifstream file(argv[3]);
        const std::string pageTemplate(std::istreambuf_iterator<char>(file), {});
        text = kv::commandline::ManualPage(*program, pageTemplate);
    }
    if (text.empty()) fmt::print(stderr, "usage: describe_program kvagentctl|kvreg|kvlab man TEMPLATE|bash\n");
    fmt::print("{}", text);
    return text.empty() || std::fflush(stdout) != 0 ? 1 : 0;
}
