// Any bytes for the .reg parser. What it accepts is printed, and that text is a fixed point: it parses, and prints the
// same again.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "tools/kvreg/reg_file.h"

namespace {

void Require(bool held, const char* what) {
    if (held) return;
    std::fprintf(stderr, "%s\n", what);
    std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    kv::RegFile file;
    kv::RegFileError error;
    if (!kv::ParseRegFile(bytes, file, error)) {
        Require(file.empty() && error.line > 0 && !error.message.empty(), "a refusal without its line or reason");
        return 0;
    }
    const std::string printed = kv::PrintRegFile(file);
    Require(kv::ParseRegFile(printed, file, error), "what was printed does not parse");
    Require(kv::PrintRegFile(file) == printed, "what was printed does not print the same again");
    return 0;
}
