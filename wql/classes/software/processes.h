// Win32_Process: the processes of /proc, kernel threads included, as ps lists them.
#pragma once

#include <cstdint>
#include <string>

#include "facts/processes/process_files.h"
#include "wql/wmi_class.h"

namespace kv::wql {

/// What a query does not get to see of the processes that it reads, for its notices.
class UnseenProcesses {
  public:
    /// areNamed: whether the query reads only processes that it names.
    explicit UnseenProcesses(bool areNamed) : areNamed_(areNamed) {}

    /// Notes one that was read; whether all of its parts could be.
    void See(std::uint32_t id, bool areAllPartsSeen);

    /// Notes one that was not; whether that is because this user may not read it.
    void Miss(bool isRefused);

    bool isAnySeen() const { return isAnySeen_; }

    /// Whether there may be processes that this user does not get to see.
    bool areAnyMissing(facts::ProcessFiles& files) const { return refused_ > 0 || areOthersHidden(files); }

    /// Tells what is missing from the answer.
    void Tell(facts::ProcessFiles& files, const Gathering& gathering) const;

  private:
    bool areOthersHidden(facts::ProcessFiles& files) const;

    bool areNamed_;
    bool isAnySeen_ = false;
    bool isFirstSeen_ = false;  // the first process, which is always there
    bool isAnyMissed_ = false;
    std::size_t refused_ = 0;
    std::size_t withoutParts_ = 0;
};

/// Gathers the processes that a folder such as /proc shows. What this user may not see is left out, with a notice:
/// whole processes, or parts of them. providerFailure if the folder does not even show this process.
WmiStatus GatherProcesses(const Gathering& gathering, const std::string& folder);

}  // namespace kv::wql
