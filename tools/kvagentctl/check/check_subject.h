// One record of a plan while kvagentctl checks it, and the checks of its kinds.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "collection/record_members.h"
#include "foundation/hash_table.h"
#include "tools/kvagentctl/check/check_parts.h"

namespace kv::control {

struct Subject {
    Findings& findings;
    PlanContext& context;
    std::string where;
    const HashTable* record;
    std::vector<std::u16string_view> ignored = {};  // members of another kind, which has been told

    void Error(std::string what, std::string next = "") const {
        findings.Error(where, std::move(what), std::move(next));
    }
    void Warn(std::string what, std::string next = "") const { findings.Warn(where, std::move(what), std::move(next)); }
    void Note(std::string what, std::string next = "") const { findings.Note(where, std::move(what), std::move(next)); }

    bool has(std::u16string_view key) const { return ContainsHashKey(record, key) != 0; }
    OptionalText text(std::u16string_view key) const { return MemberText(record, key); }

    /// Of a member without text: "wmiQuery is missing", or "wmiQuery is not a text".
    std::string Lack(std::u16string_view key) const;
};

/// The member as text; a finding when it is absent or not a text.
OptionalText NeededText(const Subject& subject, std::u16string_view key);

/// A finding when an earlier record has that Name.
void CheckName(const Subject& subject, const std::u16string& name);

void CheckWmi(const Subject& subject);
void CheckScript(const Subject& subject);
void CheckSnmp(const Subject& subject);

}  // namespace kv::control
