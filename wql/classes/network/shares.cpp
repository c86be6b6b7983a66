#include "wql/classes/network/shares.h"

#include "facts/network/share_files.h"
#include "wql/class_tree.h"
#include "wql/classes/failures.h"

namespace kv::wql {

namespace {

using enum CimType;

using Row = facts::Share;

constexpr auto nameIn = [](const Row& row) { return row.name; };
constexpr auto commentIn = [](const Row& row) { return row.comment; };

// clang-format off
constexpr PropertyInfo properties[] = {
    {u"AccessMask", uint32},
    {u"AllowMaximum", boolean, 0, "whether any number of users may be connected", [](const Row& row) { return row.mostUsers == 0; }},
    {u"Caption", string, 0, "as Description", commentIn},
    {u"Description", string, 0, "the comment of Samba; of NFS who may mount it", commentIn},
    {u"InstallDate", datetime},
    {u"MaximumAllowed", uint32, 0, "users at a time, max connections of Samba; NULL if AllowMaximum",
        [](const Row& row) { return row.mostUsers != 0 ? CimValue(row.mostUsers) : CimValue(); }},
    {u"Name", string, 0, "of Samba; of NFS the path", nameIn},
    {u"Path", string, 0, "the folder", [](const Row& row) { return row.path; }},
    {u"Status", string, 0, "always OK", [](const Row&) { return u"OK"; }},
    {u"Type", uint32, 0, "0 a folder, 1 a printer", [](const Row& row) { return row.isPrinter ? 1 : 0; }},
};
// clang-format on

WmiStatus GatherOwnShares(const Gathering& gathering) { return GatherShares(gathering, ""); }

constexpr ClassInfo classes[] = {
    {u"Win32_Share", u"CIM_LogicalElement", properties, GatherOwnShares, u"Name", "shares of Samba and exports of NFS"},
};

const ClassFamily family([] { return std::span<const ClassInfo>(classes); });

}  // namespace

WmiStatus GatherShares(const Gathering& gathering, const std::string& root) {
    const facts::FoundShares found = facts::ReadShares(root, gathering.notice);
    for (const Row& row : found.shares) {
        if (!gathering.row(&row)) break;
    }
    const bool isMissing = found.failure != 0 && found.shares.empty();
    return isMissing ? StatusOfFailure(found.failure) : wmi_status::ok;
}

}  // namespace kv::wql
