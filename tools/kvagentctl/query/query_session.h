// What kvagentctl query does with one line: a query, or a command that begins with a dot.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/kvagentctl/output.h"
#include "tools/kvagentctl/query/wmi_rows.h"

namespace kv::control {

class QuerySession {
  public:
    /// form: absent for a table, or lines where the names of a table are too long for the terminal.
    QuerySession(std::string nameSpace, std::optional<Form> form, Values values);

    /// Runs a query and prints its rows, also those before a failure. What was left out goes to standard error. Throws
    /// NotFoundError when the class does not exist, std::runtime_error when the query fails otherwise.
    void RunQuery(const std::string& query) const;

    /// Prints the classes whose name has a text in it, or matches a pattern with * or ?; all for an empty one.
    void PrintClasses(const std::string& pattern) const;

    /// Prints a class's properties. NotFoundError when it does not exist.
    void PrintClass(const std::string& name) const;

    /// Runs a query or a command with a dot, as those say. False for the command that ends the session. UsageError for
    /// an unknown command.
    bool RunLine(const std::string& line);

    /// How the beginning of a line may go on: whole words in place of its last one.
    static std::vector<std::string> Completions(std::string_view line);

  private:
    void Print(const Table& table) const;
    void SetMode(const std::string& mode);

    std::string nameSpace_;
    std::optional<Form> form_;
    Values values_;
};

}  // namespace kv::control
