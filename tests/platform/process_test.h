// Processes that run to their ends, on every system.
#pragma once

#include <string>

#include "platform/process.h"
#include "platform/utf.h"
#include "tests/support/test_folder.h"

namespace platform::test {

class ProcessTestBase : public kv::test::TestFolder {
  protected:
    static ProcessHandle Start(std::u16string_view line) {
        ProcessHandle process = 0;
        EXPECT_EQ(Processes().CreateProcessW(line, u"", process), error::success) << Utf8FromWide(line);
        return process;
    }

    /// Runs a line to its end; its exit code.
    static std::uint32_t Run(std::u16string_view line) {
        const ProcessHandle process = Start(line);
        std::uint32_t code = 0;
        EXPECT_EQ(Processes().WaitForSingleObject(process, 20'000), error::success);
        EXPECT_EQ(Processes().GetExitCodeProcess(process, code), error::success);
        Processes().CloseProcess(process);
        return code;
    }
};

}  // namespace platform::test
