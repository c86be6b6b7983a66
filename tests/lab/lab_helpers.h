// A folder for a lab's database, zips to upload, and calls to a server.
#pragma once

#include <filesystem>
#include <gtest/gtest.h>
#include <httplib.h>
#include <string>
#include <string_view>
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

}  // namespace kv::lab::test
