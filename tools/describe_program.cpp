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
#include "lab/kvlab.h"
#include "tools/kvreg_commands.h"

int main(int argc, char** argv) {
    const std::string_view name = argc > 1 ? argv[1] : "";
    const std::string_view kind = argc > 2 ? argv[2] : "";
    const bool isKnown = name == "kvreg" || name == "kvlab";
    std::string text;
    if (isKnown && kind == "bash") {
        text = kv::commandline::BashCompletion(name == "kvreg" ? kv::RegistryTool() : kv::lab::LabProgram());
    } else if (isKnown && kind == "man" && argc > 3) {
        std::ifstream file(argv[3]);
        const std::string pageTemplate(std::istreambuf_iterator<char>(file), {});
        text = kv::commandline::ManualPage(name == "kvreg" ? kv::RegistryTool() : kv::lab::LabProgram(), pageTemplate);
    }
    if (text.empty()) fmt::print(stderr, "usage: describe_program kvreg|kvlab man TEMPLATE|bash\n");
    fmt::print("{}", text);
    return text.empty() || std::fflush(stdout) != 0 ? 1 : 0;
}
