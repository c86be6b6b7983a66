// Prints the page about all WMI classes (docs/wmi-classes.md), made from the tables by which they are declared.
#include <cctype>
#include <cstdio>
#include <fmt/format.h>
#include <string>
#include <string_view>
#include <vector>

#include "platform/utf.h"
#include "wql/class_tree.h"

namespace {

using kv::wql::ClassInfo;
using kv::wql::PropertyInfo;
using platform::Utf8FromWide;

constexpr std::string_view introduction = R"(# WMI classes on Linux

Each class of `ROOT\CIMV2` that the agent answers on Linux, with its properties, their types, and
what their values are: unit and source. This page is made by `describe_classes` from the tables in
`wql/classes/`. [plans.md](plans.md) says how to ask, and lists the classes by what they are used
for.

The tables include what a class inherits. Properties that Linux has no value for are listed after
each table: they can be asked for and are NULL.
)";

/// A text as a cell of a table.
std::string CellOf(std::string_view text) {
    std::string cell;
    for (const char character : text) {
        if (character == '|' || character == '*' || character == '_' || character == '<') cell += '\\';
        cell += character;
    }
    return cell;
}

std::string KeysOf(const ClassInfo& classInfo) {
    if (classInfo.keys.empty()) return "one object";
    std::string names;
    for (const PropertyInfo* key : kv::wql::KeyProperties(classInfo)) {
        names += fmt::format("{}`{}`", names.empty() ? "" : ", ", Utf8FromWide(key->name));
    }
    return "told apart by " + names;
}

/// The meaning as a sentence, with a blank behind it.
std::string SentenceOf(std::string_view meaning) {
    if (meaning.empty()) return {};
    std::string sentence(meaning);
    sentence[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(sentence[0])));
    return CellOf(sentence) + ". ";
}

void PrintClass(const ClassInfo& classInfo) {
    fmt::print("\n## {}\n\n{}", Utf8FromWide(classInfo.name), SentenceOf(classInfo.meaning));
    const std::string superclass = Utf8FromWide(classInfo.superclass);
    fmt::print("{}{}.\n\n", superclass.empty() ? "" : "A `" + superclass + "`; ", KeysOf(classInfo));
    fmt::print("| property | type | value |\n|---|---|---|\n");
    std::string absent;
    for (const PropertyInfo& property : classInfo.properties) {
        const std::string name = Utf8FromWide(property.name);
        const std::string type = kv::wql::NameOf(property.type);
        if (property.read != nullptr) {
            fmt::print("| `{}` | {} | {} |\n", name, type, CellOf(property.meaning));
        } else {
            absent += fmt::format("{}`{}` ({})", absent.empty() ? "" : ", ", name, type);
        }
    }
    if (!absent.empty()) fmt::print("\nNULL: {}.\n", absent);
}

void PrintSuperclasses(const std::vector<const ClassInfo*>& classes) {
    fmt::print("\n## Superclasses\n\nThese have no objects of their own; a query gives those of their subclasses.\n\n");
    for (const ClassInfo* classInfo : classes) {
        if (classInfo->gather != nullptr) continue;
        const std::string superclass = Utf8FromWide(classInfo->superclass);
        fmt::print("- `{}`{}\n", Utf8FromWide(classInfo->name), superclass.empty() ? "" : ", a `" + superclass + "`");
    }
}

}  // namespace

int main() {
    fmt::print("{}", introduction);
    const std::vector<const ClassInfo*>& classes = kv::wql::AllClasses();
    for (const ClassInfo* classInfo : classes) {
        if (classInfo->gather != nullptr) PrintClass(*classInfo);
    }
    PrintSuperclasses(classes);
    return std::fflush(stdout) == 0 ? 0 : 1;
}
