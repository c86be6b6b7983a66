// A file descriptor that ends with its scope.
#pragma once

#include <unistd.h>
#include <utility>

namespace platform {

/// A file or socket, closed at the end; below 0: none.
class Descriptor {
  public:
    Descriptor() = default;
    explicit Descriptor(int number) : number_(number) {}
    Descriptor(Descriptor&& other) noexcept : number_(other.Release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(number_, other.number_);
        return *this;
    }
    ~Descriptor() {
        if (number_ >= 0) close(number_);
    }

    int number() const { return number_; }
    /// Hands it over to the caller.
    int Release() { return std::exchange(number_, -1); }
    bool isOpen() const { return number_ >= 0; }

  private:
    int number_ = -1;
};

}  // namespace platform
