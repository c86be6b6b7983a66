#include "tools/kvagentctl/query/wmi_rows.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>
#include <stdexcept>

#include "collection/wmi_query.h"
#include "collection/wmi_text.h"
#include "foundation/text.h"
#include "platform/console_tool.h"
#include "platform/messages.h"
#include "platform/utf.h"

namespace kv::control {

namespace {

using platform::CimType;
using platform::Utf8FromWide;
using platform::Variant;
using platform::VariantType;
using platform::WideFromUtf8;

constexpr std::string_view blanks = " \t\r\n";

bool IsSame(std::string_view left, std::string_view right) {
    return CompareIgnoreCase(WideFromUtf8(left), WideFromUtf8(right)) == 0;
}

std::string_view Trimmed(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of(blanks), text.size()));
    return text.substr(0, text.find_last_not_of(blanks) + 1);
}

/// Takes the next word, up to a blank or one of the ends.
std::string_view TakeWord(std::string_view& text, std::string_view ends = "") {
    text.remove_prefix(std::min(text.find_first_not_of(blanks), text.size()));
    const std::string_view word = text.substr(0, text.find_first_of(std::string(blanks).append(ends)));
    text.remove_prefix(word.size());
    return word;
}

// --- values

bool IsWholeNumber(std::u16string_view text) {
    if (text.starts_with(u'-')) text.remove_prefix(1);
    return !text.empty() && text.find_first_not_of(u"0123456789") == std::u16string_view::npos;
}

Cell NumberCell(const Variant& value, CimType type) {
    switch (type) {
        case CimType::uint8:
            return Cell::Literal(fmt::format("{}", static_cast<std::uint8_t>(value.integer)));
        case CimType::uint32:
            return Cell::Literal(fmt::format("{}", static_cast<std::uint32_t>(value.integer)));
        default:
            return Cell::Literal(fmt::format("{}", value.integer));
    }
}

/// The shortest number that reads back the same; JSON knows no infinity.
Cell RealCell(const Variant& value) {
    if (!std::isfinite(value.real)) return fmt::format("{}", value.real);
    return Cell::Literal(value.type == VariantType::r4 ? fmt::format("{}", static_cast<float>(value.real))
                                                       : fmt::format("{}", value.real));
}

Cell TextCell(const Variant& value, CimType type) {
    const bool isNumber = (type == CimType::sint64 || type == CimType::uint64) && IsWholeNumber(value.text);
    std::string text = Utf8FromWide(value.text);
    return isNumber ? Cell::Literal(std::move(text)) : Cell(std::move(text));
}

bool IsArrayOf(VariantType type) {
    return (static_cast<unsigned>(type) & static_cast<unsigned>(VariantType::arrayFlag)) != 0;
}

Cell TypedCell(const Variant& value, CimType type) {
    if (IsArrayOf(value.type)) {
        std::vector<Cell> elements;
        for (const Variant& element : value.elements) elements.push_back(TypedCell(element, ElementOf(type)));
        return Cell::List(elements);
    }
    switch (value.type) {
        case VariantType::empty:
        case VariantType::null:
            return std::nullopt;
        case VariantType::boolean:
            return Cell::Literal(value.integer != 0 ? "true" : "false");
        case VariantType::r4:
        case VariantType::r8:
            return RealCell(value);
        case VariantType::bstr:
            return TextCell(value, type);
        case VariantType::i2:
        case VariantType::i4:
        case VariantType::ui1:
            return NumberCell(value, value.type == VariantType::ui1 ? CimType::uint8 : type);
        default:
            return Cell(fmt::format("<type {}>", static_cast<unsigned>(value.type)));
    }
}

// --- rows

/// A table that takes columns as they come.
class RowsInOrder {
  public:
    explicit RowsInOrder(std::vector<std::string> columns) { table_.columns = std::move(columns); }

    void Begin() { table_.rows.emplace_back(table_.columns.size(), Cell(std::nullopt)); }

    /// Puts a value into the row that was begun last.
    void Put(const std::string& name, Cell cell) {
        std::vector<Cell>& row = table_.rows.back();
        const std::size_t at = Find(name);
        row.resize(table_.columns.size(), Cell(std::nullopt));
        table_.columns[at] = name;  // as it is declared
        row[at] = std::move(cell);
    }

    /// The table, whose rows all have every column.
    Table Take() {
        for (std::vector<Cell>& row : table_.rows) row.resize(table_.columns.size(), Cell(std::nullopt));
        return std::move(table_);
    }

  private:
    /// Rows mostly have the same names in the same order, so the search goes on behind the last name.
    std::size_t Find(const std::string& name) {
        const std::size_t count = table_.columns.size();
        for (std::size_t tried = 0; tried < count; ++tried) {
            const std::size_t at = (last_ + 1 + tried) % count;
            if (table_.columns[at] == name || IsSame(table_.columns[at], name)) return last_ = at;
        }
        table_.columns.push_back(name);
        return last_ = count;
    }

    Table table_;
    std::size_t last_ = 0;
};

/// What a status means where the system has no text for it; empty for one that is not known.
std::string_view KnownStatusText(platform::WmiStatus status) {
    constexpr struct {
        platform::WmiStatus status;
        std::string_view text;
    } known[] = {
#define KV_STATUS_ROW(name, number, meaning) {number, meaning},
        KV_WMI_STATUSES(KV_STATUS_ROW)
#undef KV_STATUS_ROW
    };
    for (const auto& row : known) {
        if (row.status == status) return row.text;
    }
    return {};
}

/// "Invalid class (80041010): the class X does not exist; did you mean Y?"
std::string FailureText(const WmiOutcome& outcome, const std::string& nameSpace) {
    std::string text(Trimmed(Utf8FromWide(WmiStatusText(outcome.status))));
    if (text.empty()) text = KnownStatusText(outcome.status);
    if (text.empty()) text = "failure";
    text = fmt::format("{} ({:x})", text, outcome.status);
    if (outcome.status == platform::wmi_status::invalidNamespace)
        text += ": " + nameSpace + "; the classes of this system are in ROOT\\CIMV2";
    if (!outcome.refusal.empty()) text += ": " + std::string(Trimmed(Utf8FromWide(outcome.refusal)));
    std::replace(text.begin(), text.end(), '\0', '?');  // a message would end there
    return text;
}

}  // namespace

std::vector<std::string> SelectedNames(std::string_view query) {
    std::vector<std::string> names;
    if (!IsSame(TakeWord(query), "SELECT")) return {};
    while (true) {
        const std::string_view name = TakeWord(query, ",");
        if (name.empty() || name == "*") return {};
        names.emplace_back(name.substr(name.rfind('.') + 1));
        query.remove_prefix(std::min(query.find_first_not_of(blanks), query.size()));
        if (!query.starts_with(',')) break;
        query.remove_prefix(1);
    }
    return IsSame(TakeWord(query), "FROM") ? names : std::vector<std::string>();
}

std::string QueriedClass(std::string_view query) {
    while (!query.empty()) {
        if (IsSame(TakeWord(query), "FROM")) return std::string(TakeWord(query));
    }
    return {};
}

WmiRows QueryRows(const std::string& nameSpace, const std::string& query, Values values) {
    WmiRows result;
    std::vector<std::string> columns = SelectedNames(query);
    const auto isSystemName = [](const std::string& name) { return name.starts_with("__"); };
    std::copy_if(columns.begin(), columns.end(), std::back_inserter(result.hidden), isSystemName);
    std::erase_if(columns, isSystemName);
    RowsInOrder rows(std::move(columns));
    const std::u16string text = WideFromUtf8(query);
    const WmiOutcome outcome = RunWmiQuery(WideFromUtf8(nameSpace), text, [&](platform::WmiHandle object) {
        if (platform::WasInterrupted()) throw std::runtime_error("interrupted");
        rows.Begin();
        TakeProperties(object, [&](const std::u16string& name, const Variant& value) {
            rows.Put(Utf8FromWide(name), values == Values::asRecord ? Cell(Utf8FromWide(VariantToString(value)))
                                                                    : TypedCell(value, value.declared));
        });
    });
    result.table = rows.Take();
    for (const std::u16string& notice : outcome.notices) result.notices.push_back(Utf8FromWide(notice));
    result.status = outcome.status;
    if (platform::IsFailure(outcome.status)) result.failure = FailureText(outcome, nameSpace);
    return result;
}

}  // namespace kv::control
