// Scripts as the command interpreter of Windows runs them.
#include "platform/clock.h"
#include "platform/files.h"
#include "platform/process.h"
#include "platform/utf.h"
#include "tests/support/test_folder.h"

namespace platform::test {

namespace {

class ProcessTest : public kv::test::TestFolder {
  protected:
    static constexpr std::u16string_view folderName = u"conf dir & (more)\\it's ^ ";

    void Script(const std::string& name, std::string_view text) const {
        Write(work / "conf dir & (more)" / ("it's ^ " + name), text);
    }

    static std::u16string Line(std::u16string_view name, std::u16string_view arguments) {
        return Processes().ComposeScriptLine(
            {u"", std::u16string(folderName) + std::u16string(name), std::u16string(arguments), u"out & put"});
    }

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

    static bool Becomes(Error wanted) {
        for (int look = 0; look < 300; ++look, Clock().Sleep(10)) {
            if (Files().GetFileUseState(u"held") == wanted) return true;
        }
        return false;
    }
};

TEST_F(ProcessTest, ArgumentsAreDataAndOutputIsAppended) {
    Script("show.bat", "@echo off\r\necho [%1][%2][%3]\r\n");
    const struct {
        const char* title;
        std::u16string_view arguments;
        std::string expected;
    } rows[] = {
        {"a number before the redirection", u"a b 2", "[a][b][2]\r\n"},
        {"quotes keep blanks together", u"\"a b\" c d", "[\"a b\"][c][d]\r\n"},
        {"quotes that are not closed", u"a b \"c", "[a][b][\"c\"]\r\n"},
        {"signs that a batch file would run", u"a&b c^d|e <f>", "[\"a&b\"][\"c^d|e\"][\"<f>\"]\r\n"},
        {"signs that would part an argument", u"a=b c,d;e (f)", "[\"a=b\"][\"c,d;e\"][\"(f)\"]\r\n"},
        {"signs of the interpreter in quotes", u"\"a&b|c\" \">d\" e", "[\"a&b|c\"][\">d\"][e]\r\n"},
        {"a line end", u"a\r\nb c", "[a][b][c]\r\n"},
    };
    for (const auto& row : rows) {
        Files().DeleteFileW(u"out & put");
        EXPECT_EQ(Run(Line(u"show.bat", row.arguments)), 0U) << row.title;
        EXPECT_EQ(Read("out & put"), row.expected) << row.title;
    }
    Script("quotes.bat", "@echo \"%~1\" \"%~2\" \"%~3\" \"%~4\"\r\n");
    EXPECT_EQ(Run(Line(u"quotes.bat", u"more & exit 9")), 0U) << "no second command";
    EXPECT_EQ(Read("out & put"), "[a][b][c]\r\n\"more\" \"&\" \"exit\" \"9\"\r\n");
    Script("fails.cmd", "@set /p line=\r\n@exit 3010\r\n");
    EXPECT_EQ(Run(Line(u"fails.cmd", u"")), 3010U);
    EXPECT_NE(Run(Line(u"missing.bat", u"")), 0U);
    EXPECT_TRUE(Line(u"x", u"").find(u"system32\\cmd.exe /C \"") != std::u16string::npos);
    EXPECT_TRUE(Processes()
                    .ComposeScriptLine({u"cscript.exe //T:120 //U //Nologo", u"x.vbs", u"50%", {}})
                    .ends_with(u"cmd.exe /C \"cscript.exe //T:120 //U //Nologo \"x.vbs\" \"50%%cd:~,%\" <nul\""));
}

TEST_F(ProcessTest, WhatCannotBeStartedSaysWhy) {
    ProcessHandle process = 0;
    EXPECT_EQ(Processes().CreateProcessW(u"cmd.exe /C exit", u"none", process), error::directoryName);
    EXPECT_EQ(Processes().CreateProcessW(std::u16string(9000, u'x'), u"", process), error::fileNameTooLong);
    EXPECT_EQ(Processes().CreateProcessW(u"none.exe", u"", process), error::fileNotFound);
    EXPECT_EQ(process, 0U);
}

TEST_F(ProcessTest, TerminationEndsTheWholeTree) {
    // The last of them starts no more: Wine loses a process that is ended while it starts, and its output stays open.
    Write(work / "last.bat", "@echo off\r\necho x >inside\r\n:again\r\ngoto again\r\n");
    Script("deep.bat", "@cmd.exe /C \"cmd.exe /C last.bat >held\"\r\n");
    const ProcessHandle process = Start(Line(u"deep.bat", u""));
    ASSERT_NE(process, 0U);
    for (int look = 0; look < 2000 && !std::filesystem::exists(work / "inside"); ++look) Clock().Sleep(10);
    EXPECT_EQ(Files().GetFileUseState(u"held"), error::sharingViolation) << "the whole tree runs";
    std::uint32_t code = 0;
    EXPECT_EQ(Processes().GetExitCodeProcess(process, code), error::busy);
    EXPECT_EQ(Processes().WaitForSingleObject(process, 1), error::waitTimeout);
    EXPECT_EQ(Processes().TerminateProcess(process), error::success);
    EXPECT_EQ(Processes().GetExitCodeProcess(process, code), error::success);
    EXPECT_TRUE(Becomes(error::success)) << "the last of the tree is gone";
    Processes().CloseProcess(process);
}

TEST_F(ProcessTest, WhatAScriptLeavesBehindGoesOn) {
    Script("leaves.bat", "@start \"\" /b cmd.exe /C \"ping.exe -n 2 127.0.0.1 >held\"\r\n");
    EXPECT_EQ(Run(Line(u"leaves.bat", u"")), 0U);
    EXPECT_TRUE(Becomes(error::sharingViolation));
    EXPECT_TRUE(Becomes(error::success));
    EXPECT_NE(Read("held").find("127.0.0.1"), std::string::npos) << "it has come to its end";
}

}  // namespace

}  // namespace platform::test
