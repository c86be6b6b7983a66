// What a check has found.
#pragma once

#include <string>
#include <vector>

namespace kv::control {

enum class Severity { error, warning, note };

/// Texts are UTF-8. Each stands on one line together with the others: "error: where: what; next".
struct Finding {
    Severity severity;
    std::string where;
    std::string what;
    std::string next;  // what to do about it; may be empty
};

struct Findings {
    std::vector<Finding> list;  // in the order of the checks

    void Error(std::string where, std::string what, std::string next = "");
    void Warn(std::string where, std::string what, std::string next = "");
    /// Something to know that is not wrong.
    void Note(std::string where, std::string what, std::string next = "");

    std::size_t Count(Severity severity) const;
};

/// A line for each finding, and a last one that counts errors and warnings.
std::string PrintedFindings(const Findings& findings);

/// An object with the array "findings" and the numbers "errors" and "warnings".
std::string FindingsAsJson(const Findings& findings);

}  // namespace kv::control
