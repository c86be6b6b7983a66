#include "lab/page/views.h"

#include <algorithm>

#include "lab/page/page.h"
#include "lab/page/table.h"
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

Table AgentTable(Store& store, const ServletRequest&) {
    Table table{"agents",
                {{"agent", "Agent"},
                 {"name", "Name"},
                 {"dns", "DNS name"},
                 {"address", "Address"},
                 {"os", "Operating system"},
                 {"customer", "Customer"},
                 {"office", "Office"},
                 {"first_contact", "First contact"},
                 {"last_contact", "Last contact"},
                 {"status", "Status"}},
                {}};
    for (const Agent& agent : Agents(store)) {
        const AgentDetails& details = agent.details;
        table.rows.push_back({details.key, details.id, details.dns, details.address, details.osName, details.customer,
                              details.office, Moment{agent.firstContact}, Moment{agent.lastContact}, agent.status});
    }
    return table;
}

struct View {
    std::string_view path;
    Answer (*serve)(Store&, const ServletRequest&);
};

/// Each of these is answered at the path itself.
constexpr View views[]{
    {"/", ServePage},
    {"/fragment", ServeFragment},
    {"/api/records", ServeRecords},
};

struct TableView {
    std::string_view path;
    Table (*make)(Store&, const ServletRequest&);
};

/// Each of these is answered at its path with ".csv" and ".json".
constexpr TableView tables[]{
    {"/agents", AgentTable},
};

std::optional<TableFormat> FormatOf(std::string_view path, std::string_view tablePath) {
    if (!path.starts_with(tablePath)) return std::nullopt;
    const std::string_view rest = path.substr(tablePath.size());
    if (rest == ".csv") return TableFormat::csv;
    if (rest == ".json") return TableFormat::json;
    return std::nullopt;
}

std::optional<Answer> FindAndServe(Store& store, const ServletRequest& request) {
    for (const View& view : views)
        if (view.path == request.path) return view.serve(store, request);
    for (const TableView& table : tables)
        if (const auto format = FormatOf(request.path, table.path))
            return TableAnswer(table.make(store, request), *format);
    return std::nullopt;
}

}  // namespace

std::optional<Answer> ServeView(Store& store, const ServletRequest& request) {
    try {
        return FindAndServe(store, request);
    } catch (const BadRequest& error) {
        return TextAnswer(400, error.what());
    }
}

}  // namespace kv::lab
