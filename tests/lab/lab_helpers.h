// A lab's server, uploads to it, and the records that it stores.
#pragma once

#include <chrono>
#include <fmt/format.h>
#include <httplib.h>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "foundation/file_utils.h"
#include "lab/server/server.h"
#include "lab/store/archive.h"
#include "lab/store/history.h"
#include "lab/store/store.h"
#include "platform/utf.h"
#include "tests/lab/postgres_server.h"
#include "tests/support/test_agent.h"

namespace kv::lab::test {

constexpr std::int64_t minute = 60'000;

/// Whether something comes true within a minute.
template <class Condition>
bool Happens(const Condition& condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

/// A record file's bytes: UTF-16LE without a byte order mark.
inline std::string WideBytes(std::string_view utf8) { return Utf16LittleEndianBytes(platform::WideFromUtf8(utf8)); }

/// The records of a database in order, each as "file text".
inline std::vector<std::string> StoredRecords(Store& store) {
    std::vector<std::string> texts;
    for (const HistoryRecord& record : ReadHistoryAfter(store, {}, 0, INT64_MAX))
        texts.push_back(record.file + " " + ReadContent(store, record.number)->text);
    return texts;
}

inline httplib::Result Upload(httplib::Client& client, const std::string& query, const std::string& body) {
    client.set_read_timeout(std::chrono::minutes(5));  // a busy machine takes long to unpack a bomb
    return client.Post("/servlets/FileCollector?" + query, body, "application/octet-stream");
}

/// A server, its database and a client.
class Lab : public kv::test::TestAgent {
  protected:
    explicit Lab(DatabaseKind kind = DatabaseKind::sqlite)
        : database(kind == DatabaseKind::sqlite ? (folder / "lab.db").string() : NewPostgresPlace()) {}

    /// Uploads records, each a text with "@" for the time of its collection in seconds.
    void Send(const std::string& agent, std::int64_t minutesAgo, const std::vector<std::string>& texts) {
        ArchiveFiles files;
        for (std::string text : texts) {
            if (const std::size_t at = text.find('@'); at != std::string::npos)
                text.replace(at, 1, std::to_string((begun - minutesAgo * minute) / 1000));
            files.emplace_back(fmt::format("data/Agent_{}_{}.txt", agent, ++sent), WideBytes(text));
        }
        const std::string query = fmt::format("AGENTKEY={0}&FILENAME=Agent_{0}_{1}.zip", agent, sent);
        ASSERT_EQ(Upload(client, query, MakeArchive(files))->status, 200);
    }

    std::string database;
    Store store = OpenStore(database);
    std::optional<LabServer> server{ServerOptions{database, "127.0.0.1", 0, "", "", 0, {}}};
    httplib::Client client{"127.0.0.1", server->port()};
    const std::int64_t begun = Now();
    int sent = 0;
};

/// Its tests, TEST_P, run on each kind of database.
class LabOnEach : public Lab, public ::testing::WithParamInterface<DatabaseKind> {
  protected:
    LabOnEach() : Lab(GetParam()) {}
};

/// The parameter's name in that of a test.
inline std::string KindName(const ::testing::TestParamInfo<DatabaseKind>& info) {
    return info.param == DatabaseKind::sqlite ? "Sqlite" : "Postgres";
}

inline const auto eachKind = ::testing::Values(DatabaseKind::sqlite, DatabaseKind::postgresql);

}  // namespace kv::lab::test
