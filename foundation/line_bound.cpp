#include "foundation/line_bound.h"

#include <algorithm>

#include "foundation/log.h"

namespace kv {

namespace {

thread_local LineBound* bound = nullptr;

}  // namespace

LineBound::LineBound(std::uint32_t most) : most_(most), outer_(bound) { bound = this; }

LineBound::~LineBound() {
    bound = outer_;
    for (const Lines& lines : lines_) {
        if (lines.leftOut > 0) Log1("\t LineBound :: %u more lines \"%s\" are left out\n", lines.leftOut, lines.format);
    }
}

LineBound::OfRefusal::OfRefusal() : former_(bound ? bound->most_ : 0) {
    if (bound) bound->most_ = std::min(bound->most_, few);
}

LineBound::OfRefusal::~OfRefusal() {
    if (bound) bound->most_ = former_;
}

bool LineBound::Admits(const char* format) {
    for (LineBound* each = bound; each; each = each->outer_) {
        if (!each->AdmitsNext(format)) return false;
    }
    return true;
}

bool LineBound::AdmitsNext(const char* format) {
    const auto isThis = [format](const Lines& lines) { return lines.format == format; };
    auto found = std::find_if(lines_.begin(), lines_.end(), isThis);
    if (found == lines_.end()) found = lines_.insert(found, {format, 0, 0});
    const bool isAdmitted = found->written < most_;
    ++(isAdmitted ? found->written : found->leftOut);
    return isAdmitted;
}

}  // namespace kv
