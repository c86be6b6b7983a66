// Folders that this computer offers to others: shares of Samba (smb.conf(5), and the usershares of net(8)), and exports
// of NFS (exports(5)).
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kv::facts {

struct Share {
    std::string name;
    std::string path;
    std::string comment;
    std::uint32_t mostUsers = 0;  // at a time; 0: any number
    bool isPrinter = false;
};

struct SambaShares {
    std::vector<Share> shares;
    std::string userShares = "/var/lib/samba/usershares";  // the folder of users' own
    std::optional<std::uint64_t> mostUserShares;           // absent: as Samba was built
    bool isPartial = false;                                // the text refers to others for more
};

/// The sections of smb.conf that share something. Those that Samba makes of its own accord ([homes], [printers]) are
/// none, and neither are those that are switched off or have no path.
SambaShares ParseSambaConfig(std::string_view text);

/// The share in a file that "net usershare" wrote; absent when it has another form. Its name is empty in the first
/// version of such files: it is then that of the file.
std::optional<Share> ParseUserShare(std::string_view text);

/// The exported folders of an exports file or of the list of what is exported (etab): each once, with those that may
/// mount it in its comment. Its path is its name.
std::vector<Share> ParseExports(std::string_view text);

/// Takes lines for the log.
using ShareNotice = std::function<void(std::string text)>;

struct FoundShares {
    std::vector<Share> shares;
    int failure = 0;  // of the first file that is there and could not be read, an errno value
};

/// All shares of the computer whose files are below a root, "" for this one. Notices tell which files could not be
/// read, and which parts of smb.conf are elsewhere. Users' own are as many as Samba allows.
FoundShares ReadShares(const std::string& root, const ShareNotice& notice);

}  // namespace kv::facts
