#include "lab/page/views.h"

#include <algorithm>
#include <array>

#include "lab/page/page.h"
#include "lab/store/record_text.h"

namespace kv::lab {

namespace {

constexpr std::int64_t maxApiRecords = 1000;
constexpr const char* htmlType = "text/html; charset=utf-8";

Answer ServePage(Store& store, const ServletRequest&) { return {200, Page(ReadOverview(store)), htmlType, {}}; }

Answer ServeFragment(Store& store, const ServletRequest&) { return {200, Fragment(ReadOverview(store)), htmlType, {}}; }

Answer ServeRecords(Store& store, const ServletRequest& request) {
    RecordQuery query;
    query.after = NumberParameter(request, "after", 0);
    query.agent = Parameter(request, "agent");
    query.limit = std::min(NumberParameter(request, "limit", maxApiRecords), maxApiRecords);
    return {200, RecordsJson(RecordsAfter(store, query)), "application/json", {}};
}

struct View {
    std::string_view path;
    Answer (*serve)(Store&, const ServletRequest&);
};

constexpr std::array<View, 3> views{{{"/", ServePage}, {"/fragment", ServeFragment}, {"/api/records", ServeRecords}}};

}  // namespace

std::optional<Answer> ServeView(Store& store, const ServletRequest& request) {
    const auto* const found =
        std::find_if(views.begin(), views.end(), [&](const View& view) { return view.path == request.path; });
    if (found == views.end()) return std::nullopt;
    try {
        return found->serve(store, request);
    } catch (const BadRequest& error) {
        return TextAnswer(400, error.what());
    }
}

}  // namespace kv::lab
