// A folder for a lab's database, zips to upload, calls to a server, and the program.
#pragma once

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <httplib.h>
#include <string>
#include <string_view>
#include <sys/wait.h>
#include <utility>
#include <vector>

#include "lab/store.h"

namespace kv::lab::test {

/// Names and contents of a zip's entries.
using Entries = std::vector<std::pair<std::string, std::string>>;

/// A record file's bytes: UTF-16LE without a byte order mark.
std::string WideBytes(std::string_view utf8);

/// A zip made by libzip, entries deflated.
std::string ZipOf(const Entries& entries);

/// The records ("file text" each) that a database holds, in order.
std::vector<std::string> StoredRecords(Store& store);

httplib::Result Upload(httplib::Client& client, const std::string& query, const std::string& body);

class LabFolder : public ::testing::Test {
  protected:
    LabFolder();
    ~LabFolder() override { std::filesystem::remove_all(folder); }

    std::filesystem::path folder;
    std::string database;
};

/// The program, started by a shell that says its number first; killed at the end of its life if it is still running.
class Program {
  public:
    explicit Program(const std::string& words)
        : output_(popen(("echo $$; exec '" KVLAB_PROGRAM "' " + words).c_str(), "r")), pid_(std::stoi(Line())) {}
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;
    ~Program() {
        if (!output_) return;
        Signal(SIGKILL);
        ExitCode();
    }

    std::string Line() { return Read('\n'); }
    std::string Output() { return Read(EOF); }
    void Signal(int number) const { kill(pid_, number); }
    int ExitCode() {
        Output();  // a program that cannot write fails
        const int status = pclose(std::exchange(output_, nullptr));
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

  private:
    std::string Read(int end) {
        std::string text;
        for (int c = fgetc(output_); c != EOF && c != end; c = fgetc(output_)) text += static_cast<char>(c);
        return text;
    }

    FILE* output_;
    pid_t pid_;
};

class Kvlab : public LabFolder {
  protected:
    Program Run(const std::string& words) const { return Program(words + " 2>'" + errors + "'"); }
    Program RunOnDatabase(const std::string& words) const { return Run(words + " --database '" + database + "'"); }
    std::string Errors() const {
        std::ifstream file(errors);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    std::string errors = folder / "errors";
};

}  // namespace kv::lab::test
