#include "lab/page/record_html.h"

#include <algorithm>
#include <vector>

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

void AddRowTable(std::string& html, json_object* rows, std::size_t count, int depth,
                 const std::vector<std::string>& columns) {
    html += "<table><tr>";
    for (const std::string& column : columns) Add(html, "<th scope=col>{}</th>", Escape(column));
    html += "</tr>\n";
    for (std::size_t at = 0; at < count; ++at) {
        html += "<tr>";
        for (const std::string& column : columns) {
            json_object* value = nullptr;
            html += "<td>";
            if (json_object_object_get_ex(json_object_array_get_idx(rows, at), column.c_str(), &value))
                AddValue(html, value, depth + 1);
            html += "</td>";
        }
        html += "</tr>\n";
    }
    html += "</table>";
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

void AddArray(std::string& html, json_object* array, int depth) {
    const std::size_t size = json_object_array_length(array);
    const std::size_t shown = std::min(size, maxRows);
    if (IsRowList(array)) {
        std::vector<std::string> columns = ColumnsOf(array, shown);
        columns.resize(std::min(columns.size(), maxColumns));
        AddRowTable(html, array, shown, depth, columns);
    } else {
        for (std::size_t at = 0; at < shown; ++at) {
            if (at > 0) html += ", ";
            AddValue(html, json_object_array_get_idx(array, at), depth + 1);
        }
    }
    if (size == 0) html += "<span class=soft>no rows</span>";
    if (shown < size) Add(html, "<div class=soft>… {} more</div>", size - shown);
}

void AddObject(std::string& html, json_object* object, int depth) {
    html += "<table>";
    json_object_object_foreach(object, name, value) {
        Add(html, "<tr><th scope=row>{}</th><td>", Escape(name));
        AddValue(html, value, depth + 1);
        html += "</td></tr>\n";
    }
    html += "</table>";
}

/// A text of seconds since 1970 as a readable moment.
std::string CollectTime(json_object* value) {
    const std::string text(StringOf(value));
    const bool isNumber = !text.empty() && text.size() <= 11 && text.find_first_not_of("0123456789") == text.npos;
    return isNumber ? UtcText(std::stoll(text) * 1000) : Escape(text);
}

/// Adds one plain member of a record to the line of such members.
void AddField(std::string& html, std::string_view name, json_object* value) {
    const bool isText = json_object_is_type(value, json_type_string);
    Add(html, "<span><span>{}</span> ", Escape(name));
    if (name == "DATACOLLECTTIME" && isText) {
        html += CollectTime(value);
    } else if (name == "ERRORMSG" && isText && StringOf(value) != "NO ERROR") {
        html += "<span class=bad>";
        AddText(html, StringOf(value));
        html += "</span>";
    } else {
        AddValue(html, value, 1);
    }
    html += "</span>\n";
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

/// Adds a row for each value, in the order in which the device gave them: an agent writes a table's last member first.
void AddSnmpRows(std::string& html, std::string_view requestedOid, json_object* values) {
    const auto size = static_cast<std::size_t>(json_object_object_length(values));
    if (size == 0) Add(html, "<tr><td>{}</td><td class=soft>no value</td></tr>\n", Escape(requestedOid));
    std::size_t shown = 0;
    for (const lh_entry* entry = json_object_get_object(values)->tail; entry != nullptr && shown < maxRows;
         entry = entry->prev, ++shown) {
        Add(html, "<tr><td>{}</td><td>", Escape(static_cast<const char*>(lh_entry_k(entry))));
        AddValue(html, static_cast<json_object*>(const_cast<void*>(lh_entry_v(entry))), 2);
        html += "</td></tr>\n";
    }
    if (shown < size) Add(html, "<tr><td class=soft colspan=2>… {} more</td></tr>\n", size - shown);
}

void AddSnmpValues(std::string& html, json_object* document, const SnmpResult& snmp) {
    if (snmp.oids.empty()) return;
    html += "<table><tr><th scope=col>OID</th><th scope=col>Value</th></tr>\n";
    for (const std::string_view oid : snmp.oids) {
        json_object* values = nullptr;
        if (json_object_object_get_ex(document, std::string(oid).c_str(), &values) &&
            json_object_is_type(values, json_type_object)) {
            AddSnmpRows(html, oid, values);
        } else {
            Add(html, "<tr><td>{}</td><td class=bad>no answer</td></tr>\n", Escape(oid));
        }
    }
    html += "</table>\n";
}

/// Adds the only object of a query's result, with a line for each property.
void AddWmiObject(std::string& html, json_object* object) {
    html += "<table><tr><th scope=col>Property</th><th scope=col>Value</th></tr>\n";
    for (const lh_entry* entry = json_object_get_object(object)->tail; entry != nullptr; entry = entry->prev) {
        Add(html, "<tr><td>{}</td><td>", Escape(static_cast<const char*>(lh_entry_k(entry))));
        AddValue(html, static_cast<json_object*>(const_cast<void*>(lh_entry_v(entry))), 2);
        html += "</td></tr>\n";
    }
    html += "</table>\n";
}

/// Adds a query's result, with properties in the order of their class: an agent writes a table's last member first.
void AddWmiRows(std::string& html, json_object* rows) {
    const std::size_t size = json_object_array_length(rows);
    if (size == 1) return AddWmiObject(html, json_object_array_get_idx(rows, 0));
    const std::size_t shown = std::min(size, maxRows);
    std::vector<std::string> columns = ColumnsOf(rows, shown);
    std::reverse(columns.begin(), columns.end());
    const std::size_t left = columns.size() - std::min(columns.size(), maxColumns);
    columns.resize(columns.size() - left);
    AddRowTable(html, rows, shown, 1, columns);
    if (shown < size) Add(html, "<div class=soft>… {} more</div>", size - shown);
    if (left > 0) Add(html, "<div class=soft>… {} more properties</div>", left);
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

void AddValue(std::string& html, json_object* value, int depth) {
    if (IsNested(value) && depth >= maxDepth) {
        AddText(html, json_object_to_json_string(value));
    } else if (json_object_is_type(value, json_type_array)) {
        AddArray(html, value, depth);
    } else if (json_object_is_type(value, json_type_object)) {
        AddObject(html, value, depth);
    } else if (json_object_is_type(value, json_type_string)) {
        AddText(html, StringOf(value));
    } else {
        html += Escape(json_object_to_json_string(value));
    }
}

void AddMembers(std::string& html, json_object* document, std::string_view requestId) {
    const bool isWmi = !TextMember(document, "ERRORMSG").empty();
    const SnmpResult snmp = SnmpResultOf(document);
    AddSnmpHeading(html, snmp);
    html += "<div class=fields>\n";
    json_object_object_foreach(document, name, value) {
        if (!IsNested(value) && !snmp.isShownApart(name)) AddField(html, name, value);
    }
    html += "</div>\n";
    AddSnmpValues(html, document, snmp);
    json_object_object_foreach(document, nestedName, nested) {
        if (!IsNested(nested) || snmp.isShownApart(nestedName)) continue;
        Add(html, "<div class=rows><h3>{}{}</h3>", Escape(nestedName),
            nestedName == requestId ? " <span class=soft>(the request's id)</span>" : "");
        if (isWmi && IsRowList(nested)) {
            AddWmiRows(html, nested);
        } else {
            AddValue(html, nested, 1);
        }
        html += "</div>\n";
    }
}

}  // namespace kv::lab
