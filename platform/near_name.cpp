#include "platform/near_name.h"

#include <algorithm>
#include <cstddef>
#include <vector>

namespace platform {

namespace {

constexpr std::size_t longestName = 100;  // a name that is longer is not a slip of one of ours

bool SameLetter(char16_t left, char16_t right) {
    const auto lower = [](char16_t letter) {
        return letter >= u'A' && letter <= u'Z' ? static_cast<char16_t>(letter | 32) : letter;
    };
    return lower(left) == lower(right);
}

/// How many letters have to be added, left out, replaced or swapped with a neighbour to make one name of the other.
std::size_t Distance(std::u16string_view left, std::u16string_view right) {
    std::vector<std::size_t> before;  // the row above the last one
    std::vector<std::size_t> last(right.size() + 1);
    std::vector<std::size_t> row(right.size() + 1);
    for (std::size_t j = 0; j < last.size(); ++j) last[j] = j;
    for (std::size_t i = 1; i <= left.size(); ++i) {
        row[0] = i;
        for (std::size_t j = 1; j <= right.size(); ++j) {
            const std::size_t replaced = last[j - 1] + (SameLetter(left[i - 1], right[j - 1]) ? 0 : 1);
            row[j] = std::min({replaced, last[j] + 1, row[j - 1] + 1});
            const bool isSwapped =
                i > 1 && j > 1 && SameLetter(left[i - 1], right[j - 2]) && SameLetter(left[i - 2], right[j - 1]);
            if (isSwapped) row[j] = std::min(row[j], before[j - 2] + 1);
        }
        before = last;
        last = row;
    }
    return last.back();
}

}  // namespace

std::u16string_view NearestName(std::u16string_view name, std::span<const std::u16string_view> known) {
    if (name.size() > longestName) return {};
    std::u16string_view nearest;
    std::size_t least = (name.size() == 3 ? 1 : name.size() / 4) + 1;
    for (const std::u16string_view candidate : known) {
        const std::size_t longer = std::max(name.size(), candidate.size());
        if (longer - std::min(name.size(), candidate.size()) >= least) continue;  // that many letters differ at least
        const std::size_t distance = Distance(name, candidate);
        if (distance >= least) continue;
        least = distance;
        nearest = candidate;
    }
    return nearest;
}

}  // namespace platform
