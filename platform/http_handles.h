// The handles that every backend of the HTTP transport gives out: numbers in place of addresses, so that one that was
// closed, or never was a handle, is an error and not an accident. Private to platform/; callable from any thread.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <utility>
#include <variant>

#include "platform/errors.h"
#include "platform/http.h"

namespace platform {

/// The records of a backend, each shared between its handle and what was opened from it.
template <class Session, class Connection, class Request>
class HttpHandles {
  public:
    using Node = std::variant<std::shared_ptr<Session>, std::shared_ptr<Connection>, std::shared_ptr<Request>>;

    HttpHandle Add(Node node) {
        const std::lock_guard lock(mutex_);
        nodes_.emplace(++last_, std::move(node));
        return last_;
    }

    /// The record of a handle; winHttpIncorrectHandleType where it is of another kind.
    template <class T>
    Error Find(HttpHandle handle, std::shared_ptr<T>& found) {
        const std::lock_guard lock(mutex_);
        const auto entry = nodes_.find(handle);
        if (entry == nodes_.end()) return error::invalidHandle;
        const auto* node = std::get_if<std::shared_ptr<T>>(&entry->second);
        if (node == nullptr) return error::winHttpIncorrectHandleType;
        found = *node;
        return error::success;
    }

    /// Ends a handle; the caller owns its record from now on.
    Error Take(HttpHandle handle, Node& node) {
        const std::lock_guard lock(mutex_);
        const auto entry = nodes_.extract(handle);
        if (entry.empty()) return error::invalidHandle;
        node = std::move(entry.mapped());
        return error::success;
    }

  private:
    std::mutex mutex_;
    std::map<HttpHandle, Node> nodes_;
    HttpHandle last_ = 0;
};

}  // namespace platform
