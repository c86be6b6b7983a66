#include "foundation/line_bound.h"

#include <algorithm>
#include <string>
#include <string_view>

#include "foundation/guarded.h"
#include "foundation/log.h"

namespace kv {

namespace {

thread_local LineBound* bound = nullptr;

/// A format as people read it: without blanks around it, and with dots for what it takes.
std::string ShownFormat(std::string_view format) {
    constexpr std::string_view blanks = " \t\n";
    format.remove_prefix(std::min(format.find_first_not_of(blanks), format.size()));
    format = format.substr(0, format.find_last_not_of(blanks) + 1);
    std::string shown;
    for (std::size_t at = 0; at < format.size(); ++at) {
        if (format[at] != '%') {
            shown += format[at];
            continue;
        }
        at = std::min(format.find_first_not_of("-+ #0123456789.hlz", at + 1), format.size());
        shown += at < format.size() && format[at] == '%' ? "%" : "...";
    }
    return shown;
}

}  // namespace

LineBound::LineBound(std::uint32_t most) : most_(most), outer_(bound) { bound = this; }

LineBound::~LineBound() {
    bound = outer_;
    for (const Lines& lines : lines_) {
        if (lines.leftOut == 0) continue;
        RunGuarded("LineBound", [&lines] {
            Log1("\t LineBound :: %u more lines like \"%s\" are left out\n", lines.leftOut, ShownFormat(lines.format));
        });
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
