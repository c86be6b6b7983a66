#include "lab/page/record_html.h"

#include <algorithm>
#include <unordered_map>
#include <vector>

#include "lab/page/units.h"
#include "lab/page/value_cards.h"
#include "lab/store/record_facts.h"
#include "lab/store/record_text.h"

namespace kv::lab {

namespace {

/// Bounds on how much of one record's values is shown.
constexpr std::size_t maxRows = 25;
constexpr std::size_t maxColumns = 20;
constexpr std::size_t maxNames = 200;  // of columns, before they are cut to those that are shown
constexpr std::size_t maxValueBytes = 400;
constexpr int maxDepth = 6;

std::string_view StringOf(json_object* value) {
    return {json_object_get_string(value), static_cast<std::size_t>(json_object_get_string_len(value))};
}

/// A control character, which HTML may not contain; the bytes of a MAC address often are.
bool IsUnprintable(char character) {
    const auto byte = static_cast<unsigned char>(character);
    return byte < 0x20 && character != '\t' && character != '\n' && character != '\r';
}

bool IsNested(json_object* value) {
    return json_object_is_type(value, json_type_array) || json_object_is_type(value, json_type_object);
}

/// The names of all rows' members, in order of appearance.
std::vector<std::string> ColumnsOf(json_object* rows, std::size_t count) {
    std::vector<std::string> columns;
    for (std::size_t at = 0; at < count; ++at) {
        json_object_object_foreach(json_object_array_get_idx(rows, at), name, value) {
            static_cast<void>(value);
            if (columns.size() < maxNames && std::find(columns.begin(), columns.end(), name) == columns.end())
                columns.emplace_back(name);
        }
    }
    return columns;
}

/// Whether all elements of an array that are shown are objects.
bool IsRowList(json_object* array) {
    if (!json_object_is_type(array, json_type_array)) return false;
    const std::size_t shown = std::min(json_object_array_length(array), maxRows);
    bool allObjects = shown > 0;
    for (std::size_t at = 0; at < shown; ++at)
        allObjects = allObjects && json_object_is_type(json_object_array_get_idx(array, at), json_type_object);
    return allObjects;
}

/// A text of seconds since 1970 as a readable moment.
std::string CollectTime(json_object* value) {
    const std::string text(StringOf(value));
    const bool isNumber = !text.empty() && text.size() <= 11 && text.find_first_not_of("0123456789") == text.npos;
    return isNumber ? UtcText(std::stoll(text) * 1000) : Escape(text);
}

/// What a polled SNMP device's record or answer says about the whole poll.
struct SnmpResult {
    std::string_view heading;  // policy or OIDs; empty for a document of another kind
    std::string_view headingName;
    std::string_view status;
    std::vector<std::string_view> oids;  // as requested

    /// Whether the heading or the table shows a member of the document.
    bool isShownApart(std::string_view name) const {
        if (heading.empty()) return false;
        return name == headingName || name == "STATUS" || std::find(oids.begin(), oids.end(), name) != oids.end();
    }
};

std::string_view TextMember(json_object* document, const char* name) {
    json_object* value = nullptr;
    if (!json_object_object_get_ex(document, name, &value) || !json_object_is_type(value, json_type_string)) return {};
    return StringOf(value);
}

SnmpResult SnmpResultOf(json_object* document) {
    const std::string_view policy = TextMember(document, "POLICY_NAME");
    std::string_view rest = TextMember(document, "OID");
    SnmpResult result{
        policy.empty() ? rest : policy, policy.empty() ? "OID" : "POLICY_NAME", TextMember(document, "STATUS"), {}};
    if (rest.empty() || result.status.empty()) return {};
    while (!rest.empty()) {
        const std::size_t end = std::min(rest.find(','), rest.size());
        if (end > 0) result.oids.push_back(rest.substr(0, end));
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    return result;
}

void AddSnmpHeading(std::string& html, const SnmpResult& snmp) {
    if (snmp.heading.empty()) return;
    html += "<h3>";
    AddText(html, snmp.heading);
    Add(html, " <span class={}>{}</span></h3>\n", snmp.status == "SUCCESS" ? "good" : "bad", Escape(snmp.status));
}

/// Whether a text is short and written in digits, and so is not to be broken.
bool IsNumberText(std::string_view text) {
    constexpr std::size_t maxNumberBytes = 24;
    return !text.empty() && text.size() <= maxNumberBytes && text.find_first_not_of("-.0123456789 ") == text.npos;
}

/// A number as it came in its unit, such as "(42.3 GB)", or the unit alone when the number reads the same; empty when
/// its unit is not known. A counter is how far it has come.
std::string UnitText(std::string_view text, const Sample& sample) {
    const Meaning meaning = MeaningOf(sample.member);
    const bool isCounter = meaning.kind == ValueKind::counter;
    const Unit unit = !isCounter ? meaning.unit : meaning.unit == Unit::bytesPerSecond ? Unit::bytes : Unit::none;
    if (unit == Unit::none) return "";
    const std::string readable = ValueText(MeantNumber(sample.number, meaning), unit);
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    return readable.starts_with(std::string(text) + " ") ? readable.substr(text.size() + 1) : "(" + readable + ")";
}

/// The cell of a property, or of an OID, which has its name when that is known.
std::string NameCell(std::string_view name) {
    const std::string title = MemberTitle(name);
    const std::string attribute = title == name ? "" : " title=\"" + Escape(name) + '"';
    return "<td" + attribute + ">" + Escape(title) + "</td>";
}

/// Writes the values of one document.
class DocumentWriter {
  public:
    DocumentWriter(std::string& html, const DocumentContext& context) : html_(html), context_(context) {}

    void AddMembers(json_object* document);
    void AddValue(json_object* value, int depth);

  private:
    void AddArray(json_object* array, int depth);
    void AddObject(json_object* object, int depth);
    void AddRowTable(json_object* rows, std::size_t count, int depth, const std::vector<std::string>& columns);
    void AddPlain(json_object* value);
    void AddField(std::string_view name, json_object* value);
    void AddPropertyRow(const lh_entry& entry);
    void AddSnmpRows(std::string_view requestedOid, json_object* values);
    void AddSnmpValues(json_object* document, const SnmpResult& snmp);
    void AddResultObject(json_object* object);
    void AddResultRows(json_object* rows);

    std::string& html_;
    const DocumentContext& context_;
    bool lastFirst_ = false;  // as an agent writes the members of a query's rows
    std::unordered_map<const json_object*, Sample> samples_;
};

void DocumentWriter::AddRowTable(json_object* rows, std::size_t count, int depth,
                                 const std::vector<std::string>& columns) {
    html_ += "<table><tr>";
    for (const std::string& column : columns) Add(html_, "<th scope=col>{}</th>", Escape(column));
    html_ += "</tr>\n";
    for (std::size_t at = 0; at < count; ++at) {
        html_ += "<tr>";
        for (const std::string& column : columns) {
            json_object* value = nullptr;
            html_ += "<td>";
            if (json_object_object_get_ex(json_object_array_get_idx(rows, at), column.c_str(), &value))
                AddValue(value, depth + 1);
            html_ += "</td>";
        }
        html_ += "</tr>\n";
    }
    html_ += "</table>";
}

void DocumentWriter::AddArray(json_object* array, int depth) {
    const std::size_t size = json_object_array_length(array);
    const std::size_t shown = std::min(size, maxRows);
    if (IsRowList(array)) {
        std::vector<std::string> columns = ColumnsOf(array, shown);
        columns.resize(std::min(columns.size(), maxColumns));
        AddRowTable(array, shown, depth, columns);
    } else {
        for (std::size_t at = 0; at < shown; ++at) {
            if (at > 0) html_ += ", ";
            AddValue(json_object_array_get_idx(array, at), depth + 1);
        }
    }
    if (size == 0) html_ += "<span class=soft>no rows</span>";
    if (shown < size) Add(html_, "<div class=soft>… {} more</div>", size - shown);
}

void DocumentWriter::AddObject(json_object* object, int depth) {
    html_ += "<table>";
    json_object_object_foreach(object, name, value) {
        Add(html_, "<tr><th scope=row>{}</th><td>", Escape(name));
        AddValue(value, depth + 1);
        html_ += "</td></tr>\n";
    }
    html_ += "</table>";
}

/// Adds a value that holds no others: a number that is a sample leads to its plot and has its unit beside it.
void DocumentWriter::AddPlain(json_object* value) {
    const bool isText = json_object_is_type(value, json_type_string);
    const std::string_view text = isText ? StringOf(value) : json_object_to_json_string(value);
    const auto sample = samples_.find(value);
    if (!IsNumberText(text) && sample == samples_.end()) return AddText(html_, text);
    const bool hasPlot = sample != samples_.end() && !context_.plotQuery.empty();
    html_ += "<span class=number>";
    if (hasPlot)
        Add(html_, "<a href=\"/plot{}\" title='its plot'>",
            Escape(QueryWithMember(context_.plotQuery, sample->second.member)));
    AddText(html_, text);
    if (hasPlot) html_ += "</a>";
    html_ += "</span>";
    const std::string unit = sample == samples_.end() ? "" : UnitText(text, sample->second);
    if (!unit.empty()) Add(html_, " <span class='soft number'>{}</span>", unit);
}

/// Adds one plain member of a record to the line of such members.
void DocumentWriter::AddField(std::string_view name, json_object* value) {
    const bool isText = json_object_is_type(value, json_type_string);
    Add(html_, "<span><span>{}</span> ", Escape(name));
    if (name == "DATACOLLECTTIME" && isText) {
        html_ += CollectTime(value);
    } else if (name == "ERRORMSG" && isText && StringOf(value) != "NO ERROR") {
        html_ += "<span class=bad>";
        AddText(html_, StringOf(value));
        html_ += "</span>";
    } else {
        AddValue(value, 1);
    }
    html_ += "</span>\n";
}

void DocumentWriter::AddPropertyRow(const lh_entry& entry) {
    Add(html_, "<tr>{}<td>", NameCell(static_cast<const char*>(lh_entry_k(&entry))));
    AddValue(static_cast<json_object*>(const_cast<void*>(lh_entry_v(&entry))), 2);
    html_ += "</td></tr>\n";
}

/// Adds a row for each value, in the order in which the device gave them: an agent writes a table's last member first.
void DocumentWriter::AddSnmpRows(std::string_view requestedOid, json_object* values) {
    const auto size = static_cast<std::size_t>(json_object_object_length(values));
    if (size == 0) Add(html_, "<tr>{}<td class=soft>no value</td></tr>\n", NameCell(requestedOid));
    std::size_t shown = 0;
    for (const lh_entry* entry = json_object_get_object(values)->tail; entry != nullptr && shown < maxRows;
         entry = entry->prev, ++shown)
        AddPropertyRow(*entry);
    if (shown < size) Add(html_, "<tr><td class=soft colspan=2>… {} more</td></tr>\n", size - shown);
}

void DocumentWriter::AddSnmpValues(json_object* document, const SnmpResult& snmp) {
    if (snmp.oids.empty()) return;
    html_ += "<table><tr><th scope=col>OID</th><th scope=col>Value</th></tr>\n";
    for (const std::string_view oid : snmp.oids) {
        json_object* values = nullptr;
        if (json_object_object_get_ex(document, std::string(oid).c_str(), &values) &&
            json_object_is_type(values, json_type_object)) {
            AddSnmpRows(oid, values);
        } else {
            Add(html_, "<tr>{}<td class=bad>no answer</td></tr>\n", NameCell(oid));
        }
    }
    html_ += "</table>\n";
}

/// Adds the only object of a result, with a line for each property.
void DocumentWriter::AddResultObject(json_object* object) {
    html_ += "<table><tr><th scope=col>Property</th><th scope=col>Value</th></tr>\n";
    const lh_table* const properties = json_object_get_object(object);
    for (const lh_entry* entry = lastFirst_ ? properties->tail : properties->head; entry != nullptr;
         entry = lastFirst_ ? entry->prev : entry->next)
        AddPropertyRow(*entry);
    html_ += "</table>\n";
}

/// Adds the result of a query or a script, with properties in the order of their class or as the script printed them.
void DocumentWriter::AddResultRows(json_object* rows) {
    const std::size_t size = json_object_array_length(rows);
    if (size == 1) return AddResultObject(json_object_array_get_idx(rows, 0));
    const std::size_t shown = std::min(size, maxRows);
    std::vector<std::string> columns = ColumnsOf(rows, shown);
    if (lastFirst_) std::reverse(columns.begin(), columns.end());
    const std::size_t left = columns.size() - std::min(columns.size(), maxColumns);
    columns.resize(columns.size() - left);
    AddRowTable(rows, shown, 1, columns);
    if (shown < size) Add(html_, "<div class=soft>… {} more</div>", size - shown);
    if (left > 0) Add(html_, "<div class=soft>… {} more properties</div>", left);
}

void DocumentWriter::AddValue(json_object* value, int depth) {
    if (IsNested(value) && depth >= maxDepth) {
        AddText(html_, json_object_to_json_string(value));
    } else if (json_object_is_type(value, json_type_array)) {
        AddArray(value, depth);
    } else if (json_object_is_type(value, json_type_object)) {
        AddObject(value, depth);
    } else {
        AddPlain(value);
    }
}

void DocumentWriter::AddMembers(json_object* document) {
    for (FoundSample& found : FindSamples(document)) samples_.emplace(found.value, std::move(found.sample));
    const bool isResult = !TextMember(document, "ERRORMSG").empty();
    lastFirst_ = !TextMember(document, "MSPCUSTOMERID").empty();
    const SnmpResult snmp = SnmpResultOf(document);
    AddSnmpHeading(html_, snmp);
    html_ += "<div class=fields>\n";
    json_object_object_foreach(document, name, value) {
        if (!IsNested(value) && !snmp.isShownApart(name)) AddField(name, value);
    }
    html_ += "</div>\n";
    AddSnmpValues(document, snmp);
    json_object_object_foreach(document, nestedName, nested) {
        if (!IsNested(nested) || snmp.isShownApart(nestedName)) continue;
        Add(html_, "<div class=rows><h3>{}{}</h3>", Escape(nestedName),
            nestedName == context_.requestId ? " <span class=soft>(the request's id)</span>" : "");
        if (isResult && IsRowList(nested)) {
            AddResultRows(nested);
        } else {
            AddValue(nested, 1);
        }
        html_ += "</div>\n";
    }
}

}  // namespace

std::string Escape(std::string_view text) {
    std::string html;
    for (const char character : text) {
        switch (character) {
            case '&':
                html += "&amp;";
                break;
            case '<':
                html += "&lt;";
                break;
            case '>':
                html += "&gt;";
                break;
            case '"':
                html += "&quot;";
                break;
            case '\'':
                html += "&#39;";
                break;
            case '\0':
                html += "\xEF\xBF\xBD";
                break;  // HTML may not contain NUL
            default:
                if (IsUnprintable(character)) {
                    html += {'\xE2', '\x90', static_cast<char>(0x80 + character)};  // its picture, from U+2400 on
                } else {
                    html += character;
                }
        }
    }
    return html;
}

std::string_view StartOfText(std::string_view text, std::size_t maxBytes) {
    if (text.size() <= maxBytes) return text;
    // Not between the bytes of one character.
    while (maxBytes > 0 && (static_cast<unsigned char>(text[maxBytes]) & 0xC0) == 0x80) --maxBytes;
    return text.substr(0, maxBytes);
}

void AddText(std::string& html, std::string_view text) {
    const std::string_view start = StartOfText(text, maxValueBytes);
    html += Escape(start);
    if (start.size() < text.size()) Add(html, "<span class=soft> … {} more bytes</span>", text.size() - start.size());
}

void AddValue(std::string& html, json_object* value, int depth) { DocumentWriter(html, {}).AddValue(value, depth); }

void AddMembers(std::string& html, json_object* document, const DocumentContext& context) {
    DocumentWriter(html, context).AddMembers(document);
}

}  // namespace kv::lab
