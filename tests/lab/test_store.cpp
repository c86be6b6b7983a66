// What the lab's database knows of records, on each kind of database.
#include <fmt/format.h>
#include <gmock/gmock.h>

#include "lab/store/database.h"
#include "lab/store/prune.h"
#include "lab/store/record_facts.h"
#include "lab/store/record_text.h"
#include "tests/lab/lab_helpers.h"

namespace kv::lab::test {

namespace {

using ::testing::ElementsAre;

constexpr std::int64_t arrived = 1795556400000;
constexpr std::int64_t day = 86'400'000;

/// "device|name|collected|failed|reason", then the samples.
std::string Facts(const std::string& text) {
    const RecordText record = DecodeRecord("f", WideBytes(text));
    const RecordFacts facts = FactsOf("A1", record, arrived);
    std::string shown = facts.device + "|" + facts.name + "|" + std::to_string((facts.collected - arrived) / 1000) +
                        "|" + (facts.failed ? "failed: " : "good") + facts.reason;
    for (const Sample& sample : facts.samples) shown += fmt::format("|{}={}", sample.member, sample.number);
    return shown;
}

TEST(RecordFacts, AreReadFromEachForm) {
    const std::tuple<const char*, const char*, const char*> rows[] = {
        {"a query, last property first",
         R"({"MSPCUSTOMERID":"C","AGENTKEY":"A1","DATACOLLECTTIME":"1795556340","ERRORMSG":"NO ERROR",
             "Disks":[{"Size":"10","Free":"  3.5000","Label":"a","Volume":"/"},{"Size":"11","Label":"b","Volume":"/home"}]})",
         "|Disks|-60|good|/ Size=10|/ Free=3.5|/home Size=11"},
        {"one that failed", R"({"AGENTKEY":"A1","ERRORMSG":"FAILED:x\ny","Big":[]})", "|Big|0|failed: FAILED:x y"},
        {"a script about users", R"({"Users":[{"User":"anna","Quota":81},{"User":"anna","Quota":40},{"Quota":1}]})",
         "|Users|0|good|anna Quota=81|anna #2 Quota=40|#3 Quota=1"},
        {"processors, whose names are numbers", R"({"CPU":[{"Name":"0","Load":"7"},{"Name":"1","Load":"8"}]})",
         "|CPU|0|good|0 Load=7|1 Load=8"},
        {"its plain members", R"({"load":0.5,"uptime":"12","id":"7","zip":"0815","date":"20260131093000.0+060"})",
         "||0|good|load=0.5|uptime=12"},
        {"a switch",
         R"({"POLICY_NAME":"System","AGENTKEY":"SW","ID":"17","STATUS":"SUCCESS","TYPE":"67","OID":".1.3.0,.1.5.0",
             ".1.3.0":{".1.3.0":"8640012"},".1.5.0":{".1.5.0":"sw1"}})",
         "SW|System|0|good|.1.3.0=8640012"},
        {"a silent one", R"({"AGENTKEY":"SW","STATUS":"FAILURE","OID":".1.3.0"})",
         "SW|.1.3.0|0|failed: no answer from the device, or not to all that was asked"},
        {"nothing", " \r\n", "||0|failed: empty record: the script printed nothing"},
        {"a text", "done {", "||0|failed: not JSON: done {"},
        {"a number", "7", "||0|failed: not a JSON object: 7"},
        {"a clock that is years ahead", R"({"DATACOLLECTTIME":"1999999999","X":[]})", "|X|0|good"},
        {"a time in milliseconds", R"({"DATACOLLECTTIME":"1795556399000","X":[]})", "|X|-1|good"},
        {"values of one name", R"({"A":{"x":1},"B":{"x":2},"x #2":3})", "|A|0|good|x=1|x #2=2|x #2 #2=3"},
        {"values without an end", R"({"X":[{"a":"1e9","b":"-","c":"nan","d":"99999999999999999999","e":"-0.5"}]})",
         "|X|0|good|1e9 d=1e+20|1e9 e=-0.5"},
    };
    for (const auto& [title, text, facts] : rows) EXPECT_EQ(Facts(text), facts) << title;
    std::string endless = "[";
    for (std::size_t count = 0; count < maxJsonValues; ++count) endless += "{},";
    EXPECT_EQ(Facts(endless + "1]"), "||0|failed: more than 500000 values: the record is kept, but not read");
}

std::string Repeat(int times, std::string_view text) {
    std::string all;
    while (times-- > 0) all += text;
    return all;
}

TEST(RecordFacts, KeepThePropertyAndBothEndsOfALongRow) {
    EXPECT_EQ(Facts(R"({"T":[{"Name":"START)" + Repeat(200, "ü") + R"(END1","Free":1}]})"),
              "|T|0|good|START" + Repeat(46, "ü") + "…" + Repeat(47, "ü") + "END1 Free=1");
}

TEST(RecordFacts, OfAClockAheadMoveBackTogether) {
    std::vector<RecordFacts> facts(5);
    std::vector<RecordFacts*> all;
    for (std::size_t at = 0; const std::int64_t seconds : {-60, 200, 71940, 72000, 71990}) {
        facts[at].collected = arrived + seconds * 1000;
        all.push_back(&facts[at++]);
    }
    SettleFuture(all, arrived);
    std::vector<std::int64_t> settled;
    for (const RecordFacts& each : facts) settled.push_back((each.collected - arrived) / 1000);
    EXPECT_THAT(settled, ElementsAre(-60, 200, -60, 0, -10)) << "of a clock that was set meanwhile";
    for (std::int64_t seconds = 60; RecordFacts & each : facts) each.collected = arrived + (seconds += 60) * 1000;
    SettleFuture(all, arrived);
    EXPECT_EQ(facts[0].collected, arrived - 240'000) << "those before the tolerance move, too";
}

/// The first column of a query.
std::vector<std::string> Lines(Store& store, const std::string& sql) {
    std::vector<std::string> lines;
    for (Statement rows(*store.database, sql); rows.Step();) lines.push_back(rows.text(0));
    return lines;
}

class LabStore : public LabOnEach {
  protected:
    void Deliver(const std::string& zip, std::int64_t collected, const std::string& members) {
        const std::string text =
            fmt::format(R"({{"DATACOLLECTTIME":"{}","ERRORMSG":"NO ERROR",{}}})", collected / 1000, members);
        EXPECT_EQ(StoreDelivery(store, "A1", zip, {DecodeRecord("f.txt", WideBytes(text))}), Delivery::stored);
    }
};

TEST_P(LabStore, KeepsSeriesBesideTheRecords) {
    const std::int64_t now = Now() / 1000 * 1000;
    Deliver("2.zip", now, R"("Disks":[{"Name":"/","Free":"2"}])");
    Deliver("1.zip", now - 1000, R"("Disks":[{"Name":"/","Free":"1"},{"Name":"/home","Free":"8"}])");
    const std::string samples =
        "SELECT src.name || ' ' || s.member || ' ' || CAST(x.number AS INTEGER) || ' ' || r.number FROM sample x "
        "JOIN series s ON s.number = x.series JOIN source src ON src.number = s.source "
        "JOIN record r ON r.number = x.record AND r.collected = x.time ORDER BY x.time, s.member";
    EXPECT_THAT(Lines(store, samples), ElementsAre("Disks / Free 1 2", "Disks /home Free 8 2", "Disks / Free 2 1"));
    EXPECT_THAT(Lines(store, "SELECT record FROM source"), ElementsAre("1"))
        << "the newest by collection, not by arrival";
}

TEST_P(LabStore, IsPruned) {
    const std::int64_t now = Now();
    Deliver("1.zip", now - 9 * day, R"("Gone":[{"n":"1"}])");
    Deliver("2.zip", now - 9 * day, R"("Kept":[{"n":"2"}])");
    Deliver("3.zip", now, R"("Kept":[{"n":"3"}])");
    Execute(*store.database, "UPDATE delivery SET time = ? WHERE zip <> '3.zip'", now - 9 * day);
    EXPECT_EQ(Prune(store, now - 7 * day), 2);
    EXPECT_THAT(Lines(store, "SELECT name FROM source"), ElementsAre("Kept"));
    EXPECT_THAT(Lines(store, "SELECT CAST(number AS INTEGER) FROM sample"), ElementsAre("3"));
    EXPECT_EQ(CountAll(store).zips, 1);
    Deliver("4.zip", now, R"("Gone":[{"n":"4"}])");
    EXPECT_THAT(Lines(store, "SELECT count(*) FROM series"), ElementsAre("2"));
}

/// A file as the second version of the tables was: what the steps to the newest one touch of it.
constexpr const char* secondVersion = R"(PRAGMA application_id = 1263946818; PRAGMA user_version = 2;
CREATE TABLE delivery (
    number INTEGER PRIMARY KEY AUTOINCREMENT, agent TEXT NOT NULL, zip TEXT NOT NULL, time INTEGER NOT NULL);
CREATE INDEX delivery_by_zip ON delivery (agent, zip);
CREATE TABLE record (
    number INTEGER PRIMARY KEY AUTOINCREMENT, delivery INTEGER NOT NULL REFERENCES delivery, position INTEGER NOT NULL,
    file TEXT NOT NULL, text TEXT NOT NULL, bytes INTEGER NOT NULL, is_json INTEGER NOT NULL,
    UNIQUE (delivery, position));
CREATE TABLE answer (
    number INTEGER PRIMARY KEY, agent TEXT NOT NULL, action TEXT NOT NULL, request_id TEXT NOT NULL, text TEXT NOT NULL,
    time INTEGER NOT NULL);
CREATE TABLE conf (
    number INTEGER PRIMARY KEY AUTOINCREMENT, agent TEXT NOT NULL, zip BLOB NOT NULL, time INTEGER NOT NULL);
INSERT INTO delivery VALUES (4, 'A1', '1.zip', 1795556400000), (5, 'A1', '1.zip', 1795556401000);
INSERT INTO record VALUES
    (7, 4, 0, 'a.txt', '{"DATACOLLECTTIME":"1795556300","ERRORMSG":"NO ERROR","X":[{"Name":"c","Free":"1"}]}', 9, 1),
    (8, 4, 1, 'b.txt', '{"DATACOLLECTTIME":"1795556300","ERRORMSG":"broken","Y":[]}', 9, 1),
    (9, 5, 0, 'a.txt', 'half a reco', 9, 0);)";

class OldFile : public kv::test::TestFolder {};

TEST_F(OldFile, IsUpgraded) {
    const std::string file = (folder / "old.db").string();
    OpenSqlite(file, Opening::orCreate)->RunScript(secondVersion);
    Store store = OpenStore(file);
    const char* const records =
        "SELECT r.number || '|' || s.name || '|' || r.failed || '|' || r.reason FROM record r JOIN source s "
        "ON s.number = r.source ORDER BY r.number";
    EXPECT_THAT(Lines(store, records), ElementsAre("7|X|0|", "8|Y|1|broken", "9||1|not JSON: half a reco"));
    EXPECT_EQ(QueryNumber(*store.database, "SELECT time FROM sample WHERE number = 1"), 1795556300000);
    const std::vector<RecordText> again{DecodeRecord("a.txt", WideBytes("half a reco"))};
    EXPECT_EQ(StoreDelivery(store, "A1", "1.zip", again), Delivery::repeated) << "old zips are known, too";
}

INSTANTIATE_TEST_SUITE_P(Database, LabStore, eachKind, KindName);

}  // namespace

}  // namespace kv::lab::test
