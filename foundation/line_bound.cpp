#include "foundation/line_bound.h"

#include <algorithm>

#include "foundation/log.h"

namespace kv {

namespace {

thread_local LineBound* bound = nullptr;

}  // namespace

LineBound::LineBound(std::uint32_t most) : most_(most), isOuter_(bound == nullptr) {
    if (isOuter_) bound = this;
}

LineBound::~LineBound() {
    if (!isOuter_) return;
    bound = nullptr;
    for (const Lines& lines : lines_) {
        if (lines.count > most_)
            Log1("\t LineBound :: %u more lines \"%s\" are left out\n", lines.count - most_, lines.format);
    }
}

bool LineBound::Admits(const char* format) { return bound == nullptr || bound->AdmitsNext(format); }

bool LineBound::AdmitsNext(const char* format) {
    const auto isThis = [format](const Lines& lines) { return lines.format == format; };
    auto found = std::find_if(lines_.begin(), lines_.end(), isThis);
    if (found == lines_.end()) found = lines_.insert(found, {format, 0});
    return ++found->count <= most_;
}

}  // namespace kv
