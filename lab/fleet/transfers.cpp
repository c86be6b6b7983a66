#include "lab/fleet/transfers.h"

#include <curl/curl.h>
#include <fmt/format.h>
#include <map>
#include <stdexcept>
#include <string_view>
#include <strings.h>
#include <utility>
#include <vector>

#include "platform/owned_handle.h"

namespace kv::lab {

namespace {

using platform::ReleasedBy;
using Easy = std::unique_ptr<CURL, ReleasedBy<curl_easy_cleanup>>;
using Multi = std::unique_ptr<CURLM, ReleasedBy<curl_multi_cleanup>>;
using HeaderList = std::unique_ptr<curl_slist, ReleasedBy<curl_slist_free_all>>;

/// What an agent waits for a connection, and how long a server may be silent, in seconds.
constexpr long connectTimeout = 60;
constexpr long silenceTimeout = 30;

constexpr std::size_t maxAnswerBytes = std::size_t{1} << 20;

struct Running {
    Easy easy;
    std::string_view unsent;  // of the body
    TransferOutcome outcome;
    std::function<void(const TransferOutcome&)> done;
};

std::size_t KeepBody(char* data, std::size_t, std::size_t size, void* running) {
    std::string& text = static_cast<Running*>(running)->outcome.text;
    if (text.size() + size <= maxAnswerBytes) text.append(data, size);
    return size;
}

/// Given piece by piece, a body does not count as part of the request's head.
std::size_t GiveBody(char* buffer, std::size_t, std::size_t size, void* running) {
    std::string_view& unsent = static_cast<Running*>(running)->unsent;
    const std::size_t given = unsent.copy(buffer, size);
    unsent.remove_prefix(given);
    return given;
}

std::size_t KeepKey(char* data, std::size_t, std::size_t size, void* running) {
    constexpr std::string_view name = "AgentKey: ";
    if (size > name.size() && strncasecmp(data, name.data(), name.size()) == 0) {
        const std::string_view value(data + name.size(), size - name.size());
        static_cast<Running*>(running)->outcome.agentKey = value.substr(0, value.find_first_of("\r\n"));
    }
    return size;
}

template <class Value>
Value Info(CURL* easy, CURLINFO what) {
    Value value{};
    curl_easy_getinfo(easy, what, &value);
    return value;
}

void Finish(Running& running, CURLcode result) {
    CURL* const easy = running.easy.get();
    TransferOutcome& outcome = running.outcome;
    const long status = Info<long>(easy, CURLINFO_RESPONSE_CODE);
    outcome.seconds = Info<double>(easy, CURLINFO_TOTAL_TIME);
    outcome.bytesSent = Info<long>(easy, CURLINFO_REQUEST_SIZE) + Info<curl_off_t>(easy, CURLINFO_SIZE_UPLOAD_T);
    outcome.bytesReceived = Info<long>(easy, CURLINFO_HEADER_SIZE) + Info<curl_off_t>(easy, CURLINFO_SIZE_DOWNLOAD_T);
    if (result != CURLE_OK) {
        outcome.failure = curl_easy_strerror(result);
    } else if (status != 200) {
        outcome.failure = fmt::format("HTTP {}", status);
    }
    running.done(outcome);
}

}  // namespace

struct Transfers::State {
    std::string address;
    std::string caFile;
    HeaderList headers{curl_slist_append(curl_slist_append(nullptr, "Expect:"), "Content-Type:")};
    Multi multi{curl_multi_init()};
    std::map<CURL*, std::unique_ptr<Running>> running;
    std::vector<Easy> idle;  // a handle costs more to make than to use again

    void Prepare(Running& transfer, const TransferRequest& request) const;
};

void Transfers::State::Prepare(Running& transfer, const TransferRequest& request) const {
    CURL* const easy = transfer.easy.get();
    curl_easy_setopt(easy, CURLOPT_URL, (address + request.path).c_str());
    curl_easy_setopt(easy, CURLOPT_FORBID_REUSE, 1L);
    curl_easy_setopt(easy, CURLOPT_FRESH_CONNECT, 1L);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT, connectTimeout);
    curl_easy_setopt(easy, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(easy, CURLOPT_LOW_SPEED_TIME, silenceTimeout);
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers.get());
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, KeepBody);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, &transfer);
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, KeepKey);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, &transfer);
    const long verified = caFile.empty() ? 0 : 1;
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, verified);
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, verified * 2);
    if (verified) curl_easy_setopt(easy, CURLOPT_CAINFO, caFile.c_str());
    if (request.body == nullptr) return;
    transfer.unsent = *request.body;
    curl_easy_setopt(easy, CURLOPT_POST, 1L);
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body->size()));
    curl_easy_setopt(easy, CURLOPT_READFUNCTION, GiveBody);
    curl_easy_setopt(easy, CURLOPT_READDATA, &transfer);
}

Transfers::Transfers(std::string address, std::string caFile) {
    if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) throw std::runtime_error("libcurl cannot start");
    state_ = std::make_unique<State>();
    state_->address = std::move(address);
    state_->caFile = std::move(caFile);
}

Transfers::~Transfers() { Abandon(); }

void Transfers::Start(const TransferRequest& request, std::function<void(const TransferOutcome&)> done) {
    auto transfer = std::make_unique<Running>();
    if (state_->idle.empty()) {
        transfer->easy.reset(curl_easy_init());
    } else {
        transfer->easy = std::move(state_->idle.back());
        state_->idle.pop_back();
        curl_easy_reset(transfer->easy.get());
    }
    transfer->done = std::move(done);
    state_->Prepare(*transfer, request);
    CURL* const easy = transfer->easy.get();
    curl_multi_add_handle(state_->multi.get(), easy);
    state_->running.emplace(easy, std::move(transfer));
}

void Transfers::Wait(std::chrono::milliseconds time) {
    int unfinished = 0;
    curl_multi_perform(state_->multi.get(), &unfinished);
    curl_multi_poll(state_->multi.get(), nullptr, 0, static_cast<int>(time.count()), nullptr);
    curl_multi_perform(state_->multi.get(), &unfinished);
    int left = 0;
    while (const CURLMsg* message = curl_multi_info_read(state_->multi.get(), &left)) {
        if (message->msg != CURLMSG_DONE) continue;
        const CURLcode result = message->data.result;
        const auto found = state_->running.find(message->easy_handle);
        const std::unique_ptr<Running> ended = std::move(found->second);
        state_->running.erase(found);
        curl_multi_remove_handle(state_->multi.get(), ended->easy.get());
        Finish(*ended, result);
        state_->idle.push_back(std::move(ended->easy));
    }
}

std::size_t Transfers::running() const { return state_->running.size(); }

void Transfers::Abandon() {
    for (const auto& [easy, running] : state_->running) curl_multi_remove_handle(state_->multi.get(), easy);
    state_->running.clear();
}

}  // namespace kv::lab
