#include "lab/store/natural_order.h"

#include <algorithm>
#include <utility>

namespace kv::lab {

namespace {

bool IsDigit(char character) { return character >= '0' && character <= '9'; }

/// Takes the digits from the start of a text, without leading zeros.
std::string_view TakeNumber(std::string_view& text) {
    const auto end = static_cast<std::size_t>(std::find_if_not(text.begin(), text.end(), IsDigit) - text.begin());
    std::string_view digits = text.substr(0, end);
    text.remove_prefix(end);
    digits.remove_prefix(std::min(digits.find_first_not_of('0'), digits.size()));
    return digits;
}

}  // namespace

bool NaturallyLess(std::string_view a, std::string_view b) {
    const auto whole = std::pair(a, b);
    while (!a.empty() && !b.empty()) {
        if (IsDigit(a.front()) && IsDigit(b.front())) {
            const std::string_view one = TakeNumber(a);
            const std::string_view other = TakeNumber(b);
            if (one != other) return one.size() != other.size() ? one.size() < other.size() : one < other;
        } else {
            if (a.front() != b.front())
                return static_cast<unsigned char>(a.front()) < static_cast<unsigned char>(b.front());
            a.remove_prefix(1);
            b.remove_prefix(1);
        }
    }
    return a.empty() && b.empty() ? whole.first < whole.second : a.empty();
}

}  // namespace kv::lab
