// The classes against a table of public documentation, and queries as public documentation, scripts and templates have
// them.
#include <algorithm>
#include <fmt/format.h>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <sstream>

#include "tests/support/linux/fake_systemd.h"
#include "tests/support/linux/shell.h"
#include "tests/support/wmi_query.h"
#include "wql/class_tree.h"

namespace kv::test {
namespace {

using namespace wql;
using platform::Utf8FromWide;

using PublicReference = WmiTest;

/// The lines of a file beside this one that are not comments, split at tabs.
std::vector<std::vector<std::string>> ReadTable(const std::string& name) {
    std::ifstream file(std::string(KV_TEST_SOURCES) + "/" + name);
    std::vector<std::vector<std::string>> lines;
    for (std::string line; std::getline(file, line);) {
        if (line.empty() || line.starts_with('#')) continue;
        std::istringstream text(line);
        std::vector<std::string>& fields = lines.emplace_back();
        for (std::string field; std::getline(text, field, '\t');) fields.push_back(field);
    }
    return lines;
}

struct PublicClass {
    std::string superclass;
    std::map<std::string, std::set<std::string>> types;  // by property
    std::set<std::string> keys;
};

/// The types that a documented property may have here.
std::set<std::string> TypesOf(const std::string& type, const std::string& source) {
    if (type == "unit16") return {"uint16"};  // a slip of the documentation
    if (type == "CIM_ManagedSystemElement") return {"reference"};
    if (source == "dump" && type == "string") return {"string", "datetime", "reference"};
    return {type};
}

/// Adds the keys of superclasses, which the documentation of a class often leaves out.
void InheritKeys(std::map<std::string, PublicClass>& classes) {
    for (auto& [name, one] : classes) {
        if (one.keys.empty()) continue;
        for (auto above = classes.find(one.superclass); above != classes.end();
             above = classes.find(above->second.superclass)) {
            one.keys.insert(above->second.keys.begin(), above->second.keys.end());
        }
    }
}

std::map<std::string, PublicClass> ReadClasses() {
    std::map<std::string, PublicClass> classes;
    for (const std::vector<std::string>& row : ReadTable("public_classes.tsv")) {
        PublicClass& one = classes[row.at(0)];
        one.superclass = row.at(1);
        one.types[row.at(2)] = TypesOf(row.at(3), row.at(6));
        if (row.at(4) == "key") one.keys.insert(row.at(2));
    }
    InheritKeys(classes);
    return classes;
}

/// What differs between a class and the table, one line for each property.
std::string DifferencesOf(const ClassInfo& declared, PublicClass expected) {
    std::string text;
    if (Utf8FromWide(declared.superclass) != expected.superclass) text += "superclass " + expected.superclass + "\n";
    for (const PropertyInfo& property : declared.properties) {
        const std::string name = Utf8FromWide(property.name);
        const auto found = expected.types.extract(name);
        if (found.empty()) {
            text += "not in the table: " + name + "\n";
        } else if (!found.mapped().contains(NameOf(property.type))) {
            text += name + " is a " + *found.mapped().begin() + "\n";
        }
    }
    for (const auto& [name, types] : expected.types) text += "missing: " + name + "\n";
    for (const PropertyInfo* key : KeyProperties(declared)) {
        const std::string name = Utf8FromWide(key->name);
        if (!expected.keys.empty() && !expected.keys.contains(name)) text += "not a key: " + name + "\n";
    }
    return text;
}

TEST_F(PublicReference, ClassesAreAsDocumented) {
    std::map<std::string, PublicClass> documented = ReadClasses();
    for (const ClassInfo* declared : AllClasses()) {
        const auto found = documented.extract(Utf8FromWide(declared->name));
        if (found.empty()) {
            EXPECT_EQ(declared->gather, nullptr)
                << Utf8FromWide(declared->name) << " has objects and is not in the table";
            continue;
        }
        EXPECT_EQ(DifferencesOf(*declared, found.mapped()), "") << found.key();
    }
    std::string undeclared;
    for (const auto& [name, facts] : documented) undeclared += name + " ";
    EXPECT_EQ(undeclared, "Win32_PageFile Win32_PnPEntity Win32_PrintJob Win32_Printer ");
}

TEST_F(PublicReference, EveryClassIsInOrderAndHasItsKeysMeaningsAndSuperclasses) {
    for (const ClassInfo* declared : AllClasses()) {
        const std::string name = Utf8FromWide(declared->name);
        EXPECT_EQ(FindClass(declared->name), declared) << name << ": there is another of that name";
        const auto commas = static_cast<std::size_t>(std::ranges::count(declared->keys, u','));
        EXPECT_EQ(KeyProperties(*declared).size(), declared->keys.empty() ? 0 : commas + 1) << name;
        for (const PropertyInfo& property : declared->properties) {
            EXPECT_EQ(FindProperty(*declared, property.name), &property) << name << Utf8FromWide(property.name);
            EXPECT_EQ(property.read == nullptr, property.meaning.empty())
                << name << "." << Utf8FromWide(property.name) << ": only what is read needs a meaning";
        }
        if (declared->superclass.empty()) continue;
        const ClassInfo* superclass = FindClass(declared->superclass);
        ASSERT_NE(superclass, nullptr) << name;
        for (const PropertyInfo& inherited : superclass->properties) {
            const PropertyInfo* own = FindProperty(*declared, inherited.name);
            EXPECT_TRUE(own != nullptr && own->type == inherited.type) << name << "." << Utf8FromWide(inherited.name);
        }
    }
}

/// "rows", "none", or the status as plans.md has it.
std::string OutcomeOf(const WmiResult& result) {
    if (platform::IsFailure(result.status)) return fmt::format("{:08x}", result.status);
    return result.rows.empty() ? "none" : "rows";
}

/// The outcomes that a computer can have by what a command of the shell says of it.
std::string OutcomesBy(const std::string& command) {
    const ShellOutcome said = RunShell("(" + command + ") 2>/dev/null");
    const std::string last = said.output.substr(said.output.rfind('\n') + 1);
    if (last.starts_with("rows") || last.starts_with("none") || last.starts_with("8004")) return last;
    return said.exitCode == 0 ? "rows" : "none";
}

// A line is an outcome, or several with blanks between them where that depends on the computer; why; and the query. One
// of two fields is a name for outcomes, and the command that tells them.
TEST_F(PublicReference, PublishedQueriesAreAnswered) {
    const std::vector<std::vector<std::string>> lines = ReadTable("published_queries.txt");
    ASSERT_GT(lines.size(), 90U);
    const FakeSystemd manager(
        {{.id = "database.service",
          .active = "failed",
          .file = "/lib/systemd/system/database.service",
          .fileState = "enabled",
          .properties = {{"ExecMainCode", "1"}, {"ExecMainStatus", "3"}, {"Result", "exit-code"}}},
         {.id = "web.service", .active = "active", .fileState = "enabled", .properties = {{"MainPID", "1"}}}});
    std::map<std::string, std::string> outcomesOf;
    for (const std::vector<std::string>& line : lines) {
        if (line.size() == 2) outcomesOf[line[0]] = OutcomesBy(line[1]);
        if (line.size() == 2) continue;
        ASSERT_EQ(line.size(), 3U) << line.front();
        const bool isNamed = line[0].starts_with("if ");
        const std::string outcomes = " " + (isNamed ? outcomesOf.at(line[0]) : line[0]) + " ";
        const std::string outcome = OutcomeOf(RunWmiQuery(line[2]));
        EXPECT_NE(outcomes.find(" " + outcome + " "), std::string::npos) << outcome << ": " << line[2];
    }
}

}  // namespace
}  // namespace kv::test
