// Lines by libedit.
#include "platform/line_prompt.h"

#include <algorithm>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <histedit.h>
#include <sys/stat.h>

#include "platform/console_tool.h"

namespace platform {

namespace {

namespace fs = std::filesystem;

constexpr int historySize = 1000;        // lines
constexpr std::size_t mostListed = 200;  // words that a line may go on with
constexpr const char* wordEnds = " \t,({=<>!";

/// Whether something other than a file, such as a pipe that nobody writes to, stands at a path.
bool IsOtherThanFile(const std::string& path) {
    std::error_code absent;
    const fs::file_type type = fs::status(path, absent).type();
    return type != fs::file_type::regular && type != fs::file_type::not_found && type != fs::file_type::none;
}

/// The history's file; empty where the user has no home. Makes its folders.
std::string HistoryFile(const std::string& program) {
    const char* const state = std::getenv("XDG_STATE_HOME");
    const char* const home = std::getenv("HOME");
    fs::path folder;
    if (state != nullptr && *state == '/') {
        folder = state;
    } else if (home != nullptr && *home == '/') {
        folder = fs::path(home) / ".local" / "state";
    } else {
        return {};
    }
    folder /= program;
    std::error_code failure;
    const mode_t former = umask(0077);
    fs::create_directories(folder, failure);
    umask(former);
    return failure ? std::string() : (folder / "history").string();
}

/// The longest beginning that all words have.
std::string CommonBeginning(const std::vector<std::string>& words) {
    std::string common = words.front();
    for (const std::string& word : words)
        common.erase(std::mismatch(common.begin(), common.end(), word.begin(), word.end()).first, common.end());
    return common;
}

/// Prints words below the line, as many in a row as the terminal has room for.
void PrintWords(const std::vector<std::string>& words) {
    if (words.size() > mostListed) {
        std::printf("\n%zu possibilities\n", words.size());
        return;
    }
    std::size_t longest = 0;
    for (const std::string& word : words) longest = std::max(longest, word.size() + 2);
    const std::size_t inRow = std::max<std::size_t>(OutputColumns() / longest, 1);
    for (std::size_t i = 0; i < words.size(); ++i)
        std::printf("%s%-*s", i % inRow == 0 ? "\n" : "", static_cast<int>(longest), words[i].c_str());
    std::printf("\n");
}

struct Editor {
    EditLine* line = nullptr;
    History* history = nullptr;
    std::string prompt = {};
    std::string historyFile = {};
    LinePrompt::Complete complete = {};
    bool isGivenUp = false;
};

Editor& EditorOf(EditLine* line) {
    void* data = nullptr;
    el_get(line, EL_CLIENTDATA, &data);
    return *static_cast<Editor*>(data);
}

char* PromptOf(EditLine* line) { return EditorOf(line).prompt.data(); }

/// Ctrl-C: ends the line, whose text is then dropped.
unsigned char GiveUp(EditLine* line, int) {
    EditorOf(line).isGivenUp = true;
    return CC_NEWLINE;
}

/// Tab: completes the word before the cursor as far as it is the only one, or lists the words.
unsigned char CompleteWord(EditLine* line, int) {
    const LineInfo* const info = el_line(line);
    const std::string before(info->buffer, info->cursor);
    const std::string begun = before.substr(before.find_last_of(wordEnds) + 1);
    const std::vector<std::string> words = EditorOf(line).complete(before);
    if (words.empty()) return CC_REFRESH_BEEP;
    const std::string common = words.size() == 1 ? words.front() + " " : CommonBeginning(words);
    if (common.size() > begun.size()) {
        el_deletestr(line, static_cast<int>(begun.size()));
        el_insertstr(line, common.c_str());
        return CC_REFRESH;
    }
    PrintWords(words);
    return CC_REDISPLAY;
}

void Keep(Editor& editor, const std::string& line) {
    HistEvent event{};
    history(editor.history, &event, H_ENTER, line.c_str());
    if (editor.historyFile.empty() || IsOtherThanFile(editor.historyFile)) return;
    const mode_t former = umask(0077);
    history(editor.history, &event, H_SAVE, editor.historyFile.c_str());
    umask(former);
}

}  // namespace

struct LinePrompt::State : Editor {};

LinePrompt::LinePrompt(const std::string& program, const std::string& prompt, Complete complete)
    : state_(std::make_unique<State>()) {
    std::setlocale(LC_CTYPE, "");  // so that a character of several bytes is one to the editor
    State& state = *state_;
    state.prompt = prompt;
    state.complete = std::move(complete);
    state.historyFile = HistoryFile(program);
    if (!state.historyFile.empty() && IsOtherThanFile(state.historyFile)) {
        std::fprintf(stderr, "%s: %s is not a file; lines are not kept\n", program.c_str(), state.historyFile.c_str());
        state.historyFile.clear();
    }
    state.history = history_init();
    HistEvent event{};
    history(state.history, &event, H_SETSIZE, historySize);
    history(state.history, &event, H_SETUNIQUE, 1);
    if (!state.historyFile.empty()) history(state.history, &event, H_LOAD, state.historyFile.c_str());
    state.line = el_init(program.c_str(), stdin, stdout, stderr);
    EditLine* const line = state.line;
    el_set(line, EL_CLIENTDATA, static_cast<void*>(static_cast<Editor*>(&state)));
    el_set(line, EL_PROMPT, PromptOf);
    el_set(line, EL_EDITOR, "emacs");
    el_set(line, EL_SIGNAL, 1);
    el_set(line, EL_HIST, history, state.history);
    el_set(line, EL_ADDFN, "complete-word", "completes a word", CompleteWord);
    el_set(line, EL_BIND, "^I", "complete-word", nullptr);
    el_set(line, EL_BIND, "^R", "em-inc-search-prev", nullptr);
    // While a line is edited, keys such as Ctrl-C send no signal.
    el_set(line, EL_SETTY, "-d", "-isig", nullptr);
    el_set(line, EL_ADDFN, "give-up-line", "gives up the line", GiveUp);
    el_set(line, EL_BIND, "^C", "give-up-line", nullptr);
}

LinePrompt::~LinePrompt() {
    el_end(state_->line);
    history_end(state_->history);
}

std::optional<std::string> LinePrompt::Read() {
    while (true) {
        int length = 0;
        state_->isGivenUp = false;
        el_set(state_->line, EL_PREP_TERM, 1);  // else the prompt is printed before keys are the editor's
        const char* const text = el_gets(state_->line, &length);
        if (text == nullptr || length <= 0) {
            std::printf("\n");
            return std::nullopt;
        }
        if (state_->isGivenUp) {
            std::printf("^C\n");
            continue;
        }
        std::string line(text, static_cast<std::size_t>(length));
        line.erase(line.find_last_not_of("\r\n") + 1);
        if (line.find_first_not_of(" \t") != line.npos) Keep(*state_, line);
        return line;
    }
}

}  // namespace platform
