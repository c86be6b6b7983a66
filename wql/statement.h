// A statement of any kind, ready to run.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "wql/query.h"

namespace kv::wql {

struct PreparedStatement {
    std::u16string subject;  // what it asks for, for names of runs and log lines; the class's name for a data query
    std::function<WmiStatus(const ResultSink& sink)> run;

    /// What run would find the query to lack, without running it (JudgeDemands).
    std::function<WmiStatus(const std::function<void(std::string text)>& notice)> judge;
};

/// Parses a statement and binds it. Fails as ParseWql, BindQuery and CheckAssociations do.
WmiStatus PrepareStatement(std::u16string_view text, PreparedStatement& prepared);

}  // namespace kv::wql
