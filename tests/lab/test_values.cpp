// Numeric values: what they mean, how they are drawn, and that a real Prometheus reads them.
#include <fmt/format.h>
#include <gmock/gmock.h>

#include "lab/page/curve.h"
#include "lab/page/units.h"
#include "lab/store/record_text.h"
#include "tests/lab/lab_helpers.h"
#include "tests/support/linux/child_program.h"
#include "tests/support/loopback.h"

namespace kv::lab::test {

namespace {

using ::testing::HasSubstr;

TEST(Units, AreKnownByNameAndOid) {
    using enum Course;
    const std::tuple<const char*, double, const char*, Course> rows[] = {
        {"/ FreeSpace", 75.66e9, "75.7 GB", moves},
        {"FreePhysicalMemory", 2e6, "2.0 GB", moves},
        {"Memory AvailableKB", 1, "1.0 kB", moves},
        {"_Total PercentProcessorTime", 12.34, "12.3 %", moves},
        {"lab WorkingSetSize", 1e6, "1.0 MB", moves},
        {"eth0 Speed", 1e9, "1.0 Gbit/s", stands},
        {"eth0 BytesTotalPersec", 1500, "1.5 kB/s", moves},
        {"SystemUpTime", 93784, "26 h 3 min", unknown},
        {"/ Size", 1e12, "1.0 TB", stands},
        {"SwapTotalKB", 1e6, "1.0 GB", stands},
        {"lab ProcessId", 12, "12", stands},
        {"anna Quota", 1234567, "1,234,567", unknown},
        {"anna Quota", -0.00012, "-0.00012", unknown},
        {"anna Quota", 1e300, "1e+300", unknown},
        {".1.3.6.1.2.1.1.3.0", 11215900, "31 h 9 min", unknown},
        {".1.3.6.1.2.1.25.3.3.1.2.196608", 7, "7 %", moves},
        {".1.3.6.1.2.1.2.2.1.1", 7, "7", stands},
    };
    for (const auto& [member, number, text, course] : rows) {
        const Meaning meaning = MeaningOf(member);
        EXPECT_EQ(ValueText(number * meaning.factor, meaning.unit), text) << member;
        EXPECT_EQ(UsualCourse(member), course) << member;
    }
    EXPECT_EQ(UsualCourse(".1.3.6.1.2.1.2.2.1.10.2"), moves);
    EXPECT_EQ(MemberTitle(".1.3.6.1.2.1.2.2.1.10.2"), "ifInOctets 2");
    EXPECT_EQ(MeaningOf(".1.3.6.1.2.1.2.2.1.10.2").kind, ValueKind::counter);
    EXPECT_EQ(SplitMember("eth 0 Speed #2").property, "Speed");
    EXPECT_EQ(ShowMember("eth 0 Speed #2").row, "eth 0 #2");
    EXPECT_EQ(ShowMember(".1.3.6.1.2.1.2.2.1.10.2").row, "2");
}

TEST(Units, TellNumbersApart) {
    const std::tuple<Unit, std::vector<double>, std::vector<std::string>> rows[] = {
        {Unit::bytes, {42.2e9, 42.25e9, 42.3e9}, {"42.20 GB", "42.25 GB", "42.30 GB"}},
        {Unit::bytes, {1e9, 2e9, 2e9}, {"1.0 GB", "2.0 GB", "2.0 GB"}},
        {Unit::percent, {0.3, 0.1 + 0.2}, {"0.300 %", "0.300 %"}},
        {Unit::seconds, {7200, 7230}, {"2 h", "2 h 30 s"}},
        {Unit::none, {1234.2, 1234.3}, {"1,234.2", "1,234.3"}},
    };
    for (const auto& [unit, numbers, texts] : rows) EXPECT_EQ(DistinctTexts(numbers, unit, ValueText), texts);
    const std::vector<std::string> steps{"0 %", "0.5 %", "1 %", "1.5 %"};
    EXPECT_EQ(DistinctTexts({0, 0.5, 1, 1.5}, Unit::percent, AxisText), steps);
}

class Values : public LabOnEach {
  protected:
    /// Delivers two records each, with names that need care.
    void DeliverValues() {
        for (const int at : {1, 2})
            Send("A1", 3 - at,
                 {fmt::format(R"({{"DATACOLLECTTIME":"@","Disks":[{{"Name":"a\"b\\c\nd","FreeSpace":"{}"}}]}})",
                              at * 1500),
                  fmt::format(
                      R"({{"AGENTKEY":"SW","STATUS":"SUCCESS","OID":".1.3.6.1.2.1.2.2.1.10","DATACOLLECTTIME":"@",
                                  ".1.3.6.1.2.1.2.2.1.10":{{".1.3.6.1.2.1.2.2.1.10.2":"{}"}}}})",
                      at * 3000)});
    }
    std::string Get(const std::string& path) { return client.Get(path)->body; }
};

/// Numbers with blanks between, bars between pieces, the newest number behind them.
std::string Line(const Curve& curve) {
    std::string text;
    for (const std::vector<CurvePoint>& piece : curve.pieces) {
        text += text.empty() ? "" : "| ";
        for (const CurvePoint& point : piece) text += fmt::format("{:.0f} ", point.number);
    }
    return text + fmt::format("({:.0f})", curve.last);
}

TEST_P(Values, BecomeRatesOfCountersAndLinesWithGaps) {
    const char *const octets = ".1.3.6.1.2.1.2.2.1.10.2", *const wide = ".1.3.6.1.2.1.31.1.1.1.6.2";
    constexpr std::int64_t start = 1'700'000'000;
    constexpr double wrap = 4294967296;
    const std::vector<std::pair<int, double>> wraps{{0, 0}, {10, wrap - 500}, {20, 500}, {30, wrap - 500}};
    using Samples = std::vector<std::pair<int, double>>;  // seconds and numbers
    const std::tuple<const char*, const char*, int, Samples, const char*> rows[] = {
        {"a gauge", "Load", 10, {{0, 3}, {60, 4}, {120, 5}}, "3 4 5 (5)"},
        {"its last number", "Load", 100, {{0, 3}, {60, 4}, {70, 8}}, "5 (8)"},
        {"a pause", "Load", 10, {{0, 3}, {60, 4}, {120, 5}, {600, 6}, {660, 7}}, "3 4 5 | 6 7 (7)"},
        {"a counter", octets, 10, {{0, 100}, {10, 200}, {20, 400}}, "10 20 (20)"},
        {"one that wraps", octets, 10, {{0, wrap - 100}, {10, 100}, {20, 300}}, "20 20 (20)"},
        {"one that begins again", octets, 10, {{0, 0}, {10, 50}, {20, 5}, {30, 305}, {40, 605}}, "5 | 30 30 (30)"},
        {"its only number", octets, 10, {{0, 5000}}, "(0)"},
        {"wraps in one part", octets, 1000, wraps, "286331136 (429496630)"},
        {"a restart in a part", octets, 100, {{0, 0}, {50, 500}, {90, 10}, {190, 1010}, {200, 1110}}, "10 10 10 (10)"},
        {"a sign from 2^63 on", wide, 10, {{0, 9223372036854767616}, {10, -9223372036854767616}}, "1638 (1638)"},
        {"two at one time", octets, 100, {{0, 0}, {10, 100}, {10, 200}, {20, 400}}, "20 (30)"},
    };
    for (const auto& [title, member, partSeconds, samples, line] : rows) {
        std::vector<RecordText> records;
        for (const auto& [second, number] : samples)
            records.push_back(
                DecodeRecord(std::to_string(records.size()),
                             WideBytes(fmt::format(R"({{"DATACOLLECTTIME":"{}","Line":{{"{}":"{:.0f}"}}}})",
                                                   start + second, member, number))));
        StoreDelivery(store, title, "1", records);
        const Range range{start * 1000, (start + 1000) * 1000};
        Filter filter;
        filter.agent = title;
        const SeriesList list = ReadSeries(store, range, filter, member, 2);
        ASSERT_EQ(list.series.size(), 1) << title;
        const Curve curve = ReadCurve(store, list.series[0].number, range, partSeconds * 1000, MeaningOf(member));
        EXPECT_EQ(Line(curve), line) << title;
    }
}

TEST_P(Values, AreShownPlottedAndListed) {
    DeliverValues();
    EXPECT_THAT(Get("/"), HasSubstr("<div class=now>3.0 kB</div>"));
    EXPECT_THAT(Get("/"), HasSubstr("<div class=member>ifInOctets</div><div class=name>SW · "));
    EXPECT_THAT(Get("/"), HasSubstr("min 50 B/s · max 50 B/s"));
    EXPECT_THAT(Get("/values.csv"), HasSubstr("A1,,Disks,\"a\"\"b\\c d FreeSpace\",3000"));
    const std::string plot = "?member=.1.3.6.1.2.1.2.2.1.10.2&name=.1.3.6.1.2.1.2.2.1.10";
    EXPECT_THAT(Get("/plot" + plot), HasSubstr("A counter, shown as its rate."));
    EXPECT_THAT(Get("/plot.json" + plot), HasSubstr(R"("number":50,)"));
    EXPECT_EQ(client.Get("/plot?range=1h")->status, 400) << "no member is named";
    EXPECT_THAT(Get("/plot?member=%3Cimg%3E"), testing::Not(HasSubstr("<img")));
    Send("A3", 0, {R"({"L":[{"n":1e17}]})"});
    Send("A3", 0, {R"({"L":[{"n":100000000000000016}]})"});
    EXPECT_THAT(Get("/plot?member=n&agent=A3"), HasSubstr("</svg>")) << "numbers without a step between them";
    EXPECT_THAT(Get("/metrics"), HasSubstr(R"(row="a\"b\\c d",property="FreeSpace",unit="bytes"} 3000)"));
    EXPECT_THAT(Get("/metrics"), testing::EndsWith("\n# EOF\n"));
    Send("A2", 0, {R"({"Disks":[{"Name":"d","Free":"1"},{"Name":"d #2","Free":"2"},{"Name":"d","Free":"3"}]})"});
    EXPECT_THAT(Get("/metrics"), HasSubstr(R"(row="d #2 #2",property="Free",unit=""} 3)")) << "no value is left out";
}

TEST_P(Values, OfManyAgentsAreDrawnInNaturalOrder) {
    const auto load = [](int number) {
        return fmt::format(R"({{"DATACOLLECTTIME":"@","Load":{{"Load":"{}"}}}})", number);
    };
    for (int agent = 14; agent > 0; --agent) Send("FLEET" + std::to_string(agent), 8, {load(7)});
    EXPECT_THAT(Get("/?agent=FLEET3"), HasSubstr("a curve after the second record"));
    const std::string many = Get("/plot?member=Load&name=Load");
    EXPECT_LT(many.find(">FLEET2 · Load</a>"), many.find(">FLEET10 · Load</a>"));
    EXPECT_THAT(many, testing::ContainsRegex("Not drawn: <a href=[^>]*agent=FLEET13[^>]*>FLEET13 · Load</a>, <a"));
    EXPECT_THAT(many, HasSubstr("<input type=hidden name=member value=\"Load\">"));
    EXPECT_THAT(many, testing::Not(HasSubstr("Lines are averages")));
    Send("FLEET3", 8, {load(9)});
    Send("FLEET3", 5, {load(8)});
    const std::string one = Get("/plot?member=Load&agent=FLEET3");
    for (const char* part : {"<path class='band line0' d='M", "<path class='line dots line0' d='M0.0 ",
                             "Lines are averages of 5 seconds; what is tinted", "(7 to 9)"})
        EXPECT_THAT(one, HasSubstr(part));
}

INSTANTIATE_TEST_SUITE_P(Database, Values, eachKind, KindName);

/// The port of a listener that lives for a moment.
int FreePort() {
    int port = 0;
    kv::test::CloseSocket(kv::test::ListenOnLoopback(port));
    return port;
}

/// Debian's Prometheus, which scrapes the lab at a port each second.
class Prometheus {
  public:
    explicit Prometheus(int lab) : port_(FreePort()), client_("127.0.0.1", port_) {
        kv::test::TestFolder::Write(
            program_.folder() / "prometheus.yml",
            fmt::format("global: {{scrape_interval: 1s}}\n"
                        "scrape_configs: [{{job_name: lab, static_configs: [{{targets: ['127.0.0.1:{}']}}]}}]\n",
                        lab));
        program_.Start(fmt::format("prometheus --config.file=prometheus.yml --storage.tsdb.path=data "
                                   "--web.listen-address=127.0.0.1:{}",
                                   port_),
                       [this] {
                           const httplib::Result answer = client_.Get("/-/ready");
                           return answer && answer->status == 200;
                       });
    }

    /// Whether a query gives a number, as text, within a minute.
    bool Gives(const std::string& query, const std::string& number) {
        const std::string path = "/api/v1/query?query=" + httplib::detail::encode_query_param(query);
        return Happens([&] {
            const httplib::Result answer = client_.Get(path);
            return answer && answer->body.find(",\"" + number + "\"]") != std::string::npos;
        });
    }

  private:
    kv::test::ChildProgram program_;
    int port_;
    httplib::Client client_;
};

class ScrapedValues : public Values {};

TEST_P(ScrapedValues, AreReadByPrometheus) {
    DeliverValues();
    Prometheus prometheus(server->port());
    EXPECT_TRUE(prometheus.Gives(R"(kv_value{agent="A1",name="Disks",row="a\"b\\c d",property="FreeSpace"})", "3000"));
    EXPECT_TRUE(prometheus.Gives(R"(kv_cumulative_total{device="SW",property="ifInOctets",row="2"})", "6000"));
    EXPECT_TRUE(prometheus.Gives("kvlab_records", "4"));
    EXPECT_TRUE(prometheus.Gives("up", "1"));
}

INSTANTIATE_TEST_SUITE_P(Database, ScrapedValues, ::testing::Values(DatabaseKind::sqlite), KindName);

}  // namespace

}  // namespace kv::lab::test
