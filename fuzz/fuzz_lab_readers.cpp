// What the lab reads of strangers. The first byte picks it:
//
//   P  a plan
//   Z  an uploaded archive
//   else a record and how it is looked at, in lines: the view with its query, the agent, and in the rest the record,
//        which is at the same time an answer to a request. All views are the lab's own.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>

#include "lab/page/views.h"
#include "lab/store/archive.h"
#include "lab/store/plans.h"
#include "lab/store/record_text.h"
#include "lab/store/requests.h"
#include "platform/backend.h"
#include "platform/utf.h"

namespace {

using namespace kv::lab;

void Require(bool holds) {
    if (!holds) __builtin_trap();
}

/// A lab's database in memory, which goes with the process.
class ScratchStore {
  public:
    ScratchStore() {
        std::string pattern = "/dev/shm/kvlab-fuzz-XXXXXX";
        Require(mkdtemp(pattern.data()) != nullptr);
        folder_ = pattern;
        platform::InstallBackend();
        store = OpenStore((folder_ / "lab.sqlite").string());
    }
    ~ScratchStore() {
        std::error_code ignored;
        std::filesystem::remove_all(folder_, ignored);
    }
    ScratchStore(const ScratchStore&) = delete;
    ScratchStore& operator=(const ScratchStore&) = delete;

    void Empty() const {
        for (const char* table : {"sample", "series", "record", "source", "delivery", "agent", "answer", "notice",
                                  "refused", "request", "conf", "sqlite_sequence"})
            Execute(*store.database, std::string("DELETE FROM ") + table);
    }

    Store store;

  private:
    std::filesystem::path folder_;
};

/// Takes the next line off a text.
std::string NextLine(std::string_view& text) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    std::string line = CleanUtf8(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
    return line;
}

/// "/path?name=value&name=value", decoded.
ServletRequest RequestOf(std::string_view line) {
    ServletRequest request;
    request.method = "GET";
    request.html = true;
    const std::size_t mark = std::min(line.find('?'), line.size());
    request.path = line.substr(0, mark);
    line.remove_prefix(std::min(mark + 1, line.size()));
    while (!line.empty()) {
        const std::size_t end = std::min(line.find('&'), line.size());
        const std::string_view part = line.substr(0, end);
        const std::size_t equals = std::min(part.find('='), part.size());
        request.query.emplace(part.substr(0, equals), part.substr(std::min(equals + 1, part.size())));
        line.remove_prefix(std::min(end + 1, line.size()));
    }
    return request;
}

/// Everything that a stranger can have the lab keep.
void Keep(Store& store, const std::string& agent, const std::string& text) {
    NoteContact(store, agent, "127.0.0.1");
    NoteStatus(store, agent, text);
    StoreDelivery(store, agent, "Agent_1_1.zip", {{"data/" + agent + ".txt", text, IsJson(text)}});
    const std::string id = AddRequest(store, {agent, "kind", "", {{"member", text}}});
    TakeAnswer(store, {agent, "answer", id, text, Now()});
    NoteAction(store, {agent, text.substr(0, 50), id, text, Now()});
    NoteRefusal(store, {agent, "Agent_1_2.zip", text.substr(0, 50), "127.0.0.1", Now(), 1});
}

/// Whether a quote of a stranger's ended an attribute. One with which the page begins an attribute follows "=".
bool LeavesAttribute(std::string_view page) {
    constexpr std::string_view quoted = "\"xss";
    for (std::size_t at = page.find(quoted); at != std::string_view::npos; at = page.find(quoted, at + 1)) {
        if (at == 0 || page[at - 1] != '=') return true;
    }
    return false;
}

/// What a stranger wrote opens no tag and leaves no attribute: the seeds have a tag of this name, and a quote before
/// it. What tools read is good JSON.
void LookAt(const Answer& answer) {
    if (answer.type.starts_with("text/html")) {
        Require(answer.body.find("<xss") == std::string::npos && !LeavesAttribute(answer.body));
    } else if (answer.type.starts_with("application/json")) {
        Require(IsJson(answer.body));
    }
}

void View(Store& store, std::string_view input) {
    const ServletRequest request = RequestOf(NextLine(input));
    const std::string agent = NextLine(input);
    Keep(store, agent, CleanUtf8(input));
    const Answer none = TextAnswer(404, "nothing");
    LookAt(ShownError(ServeView(store, request).value_or(none), request));
}

void ReadZip(std::string_view bytes) {
    try {
        ReadArchive(bytes, [](const std::string& name, std::string_view content) {
            const RecordText text = DecodeRecord(name, content);
            Require(text.text.find('\0') == std::string::npos);
        });
    } catch (const MalformedArchive& fault) {
        Require(std::string_view(fault.what()).find('\n') == std::string_view::npos);
    }
}

/// A plan that is kept is given back with the same records.
void ReadPlan(Store& store, std::string_view bytes) {
    if (!KeepStartPlan(store, bytes)) return;
    const auto plan = KnownPlan(store, "1");
    Require(plan && !RecordsOfPlan(*plan).empty());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static ScratchStore scratch;
    if (size == 0) return 0;
    const std::string_view input(reinterpret_cast<const char*>(data) + 1, size - 1);
    if (data[0] == 'Z') {
        ReadZip(input);
    } else if (data[0] == 'P') {
        ReadPlan(scratch.store, input);
    } else {
        View(scratch.store, input);
    }
    if (data[0] != 'Z') scratch.Empty();
    return 0;
}
