#include "facts/network/name_lookup.h"

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <exception>
#include <mutex>
#include <thread>
#include <utility>

#include "platform/owned_handle.h"

namespace kv::facts {

namespace {

/// Lookups under way in this process: each has a thread.
constexpr int mostLookups = 256;
std::atomic<int> lookupsUnderWay{0};

/// EAI_AGAIN if the lookup throws, as when memory runs out: nobody catches what leaves a detached thread.
NameLookup LookUpSafely(const std::function<NameLookup()>& lookUp) noexcept {
    try {
        return lookUp();
    } catch (const std::exception&) {
        return {};
    }
}

}  // namespace

struct NameLookupThread::End {
    std::mutex mutex;  // guards what follows
    std::condition_variable news;
    bool isReached = false;
    NameLookup found;

    void Reach(NameLookup lookup) {
        const std::lock_guard lock(mutex);
        found = std::move(lookup);
        isReached = true;
        news.notify_all();
    }
};

NameLookup LookUpAddress(const std::string& host, int flags) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_DGRAM;
    hints.ai_flags = flags;
    addrinfo* found = nullptr;
    NameLookup lookup;
    const bool isCut = host.find('\0') != std::string::npos;
    lookup.error = isCut ? EAI_NONAME : getaddrinfo(host.c_str(), nullptr, &hints, &found);
    const std::unique_ptr<addrinfo, platform::ReleasedBy<freeaddrinfo>> list(found);
    if (lookup.error != 0) return lookup;
    lookup.address.length = found->ai_addrlen;
    std::memcpy(&lookup.address.held, found->ai_addr, found->ai_addrlen);
    return lookup;
}

std::string NameOf(const SocketAddress& address, int flags) {
    std::array<char, NI_MAXHOST> name{};
    const int code = getnameinfo(address.plain(), address.length, name.data(), name.size(), nullptr, 0, flags);
    return code == 0 ? name.data() : "";
}

NameLookupThread::NameLookupThread(std::function<NameLookup()> lookUp) : end_(std::make_shared<End>()) {
    if (++lookupsUnderWay > mostLookups) {
        --lookupsUnderWay;
        end_->isReached = true;
        return;
    }
    try {
        std::thread([end = end_, look = std::move(lookUp)]() noexcept {
            NameLookup found = LookUpSafely(look);
            --lookupsUnderWay;
            end->Reach(std::move(found));
        }).detach();
    } catch (const std::exception&) {  // no thread, or no memory for it
        --lookupsUnderWay;
        end_->isReached = true;
    }
}

NameLookup NameLookupThread::Wait(std::chrono::steady_clock::time_point until) const {
    std::unique_lock lock(end_->mutex);
    end_->news.wait_until(lock, until, [this] { return end_->isReached; });
    return end_->found;
}

}  // namespace kv::facts
