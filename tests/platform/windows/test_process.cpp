// Scripts and their processes on Windows.
#include "platform/clock.h"
#include "platform/files.h"
#include "tests/platform/process_test.h"

namespace platform::test {

namespace {

class ProcessTest : public ProcessTestBase {
  protected:
    static constexpr std::u16string_view folderName = u"conf dir & (more)\\it's ^ ";

    void Script(const std::string& name, std::string_view text) const {
        Write(work / "conf dir & (more)" / ("it's ^ " + name), text);
    }

    static std::u16string Line(std::u16string_view name, std::u16string_view arguments) {
        return Processes().ComposeScriptLine(
            {u"", std::u16string(folderName) + std::u16string(name), std::u16string(arguments), u"out & put"});
    }

    /// Whether the file "held" comes into a use state within three seconds.
    static bool Becomes(Error wanted) {
        for (int look = 0; look < 300; ++look, Clock().Sleep(10)) {
            if (Files().GetFileUseState(u"held") == wanted) return true;
        }
        return false;
    }
};

TEST_F(ProcessTest, ArgumentsAreDataAndOutputIsAppended) {
    Script("show.bat", "@echo off\r\necho [%1][%2][%3]\r\n");
    const std::tuple<const char*, std::u16string_view, std::string> rows[] = {
        {"a number before the redirection", u"a b 2", "[a][b][2]\r\n"},
        {"quotes keep blanks together", u"\"a b\" c d", "[\"a b\"][c][d]\r\n"},
        {"an open quote", u"a b \"c", "[a][b][\"c\"]\r\n"},
        {"signs that a batch file would interpret", u"a&b c^d|e <f>", "[\"a&b\"][\"c^d|e\"][\"<f>\"]\r\n"},
        {"signs that would split an argument", u"a=b c,d;e (f)", "[\"a=b\"][\"c,d;e\"][\"(f)\"]\r\n"},
        {"the interpreter's signs in quotes", u"\"a&b|c\" \">d\" e", "[\"a&b|c\"][\">d\"][e]\r\n"},
        {"a line end", u"a\r\nb c", "[a][b][c]\r\n"},
    };
    for (const auto& [title, arguments, expected] : rows) {
        Files().DeleteFileW(u"out & put");
        EXPECT_EQ(Run(Line(u"show.bat", arguments)), 0U) << title;
        EXPECT_EQ(Read("out & put"), expected) << title;
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

TEST_F(ProcessTest, TellsWhyAProcessCannotStart) {
    ProcessHandle process = 0;
    EXPECT_EQ(Processes().CreateProcessW(u"cmd.exe /C exit", u"missing", process), error::directoryName);
    EXPECT_EQ(Processes().CreateProcessW(std::u16string(9000, u'x'), u"", process), error::fileNameTooLong);
    EXPECT_EQ(Processes().CreateProcessW(u"missing.exe", u"", process), error::fileNotFound);
    EXPECT_EQ(process, 0U);
}

TEST_F(ProcessTest, TerminationEndsTheWholeTree) {
    // The last process starts no other: if one is ended while it starts, Wine loses it and keeps its output open.
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
    EXPECT_TRUE(Becomes(error::success)) << "the last process has ended";
    Processes().CloseProcess(process);
}

TEST_F(ProcessTest, AProcessThatAScriptLeavesBehindGoesOn) {
    Script("leaves.bat", "@start \"\" /b cmd.exe /C \"ping.exe -n 2 127.0.0.1 >held\"\r\n");
    EXPECT_EQ(Run(Line(u"leaves.bat", u"")), 0U);
    EXPECT_TRUE(Becomes(error::sharingViolation));
    EXPECT_TRUE(Becomes(error::success));
    EXPECT_NE(Read("held").find("127.0.0.1"), std::string::npos) << "it ran to its end";
}

}  // namespace

}  // namespace platform::test
