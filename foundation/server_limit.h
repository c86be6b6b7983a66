// What a server may ask of this computer, as far as its administrator limits it. Each limit is a text in the registry
// key Monitoring: patterns with commas between them. An absent setting is no limit; an empty one, and one that is not a
// text or cannot be read, allows nothing. What cannot be read was absent if the last reading that succeeded said so.
#pragma once

#include <atomic>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kv {

/// One limit as its setting is at this moment: it is read by the constructor, so that a change counts at the next
/// request. In a pattern "*" stands for any characters and "?" for one. Blanks around a pattern do not count. Throws
/// std::bad_alloc.
class ServerLimit {
  public:
    enum class Kind {
        names,  // in any letter case
        // As they are written, but for "./" and "//", which lead nowhere. "/" and "\" are the same, and no wildcard
        // stands for them.
        paths,
    };

    /// wasAbsent is kept from one reading of the setting to the next.
    ServerLimit(std::u16string_view setting, Kind kind, std::atomic<bool>& wasAbsent);

    /// Whether there is a limit at all.
    bool isSet() const { return isSet_; }

    /// Why nothing is allowed, whatever its name, as "AllowedServices is empty, so nothing is allowed". Absent when the
    /// names decide.
    std::optional<std::u16string> RefusalOfAll() const;

    /// Absent when one of the names of what is asked for matches one of the patterns, or there is no limit. Otherwise
    /// why not, with the setting's name, as "AllowedScripts does not have it".
    std::optional<std::u16string> Refusal(std::span<const std::u16string> names) const;

  private:
    std::u16string setting_;
    Kind kind_;
    bool isSet_ = true;
    std::u16string fault_;  // why nothing is allowed, whatever the names; empty when the patterns decide
    std::vector<std::u16string> patterns_;
};

/// The limits that there are.
ServerLimit LimitOfRequests();
ServerLimit LimitOfServices();
ServerLimit LimitOfScripts();

/// The first pattern of a list, as AllowedRequests has it, that fits no type of request (foundation/request_types.h);
/// empty when each fits one. Throws std::bad_alloc.
std::u16string UnfitRequestPattern(std::u16string_view list);

/// The first pattern of a list, as AllowedServices and AllowedScripts have it, that looks like a regular expression, or
/// has the brackets of one; empty when none does. Throws std::bad_alloc.
std::u16string RegularExpression(std::u16string_view list);

/// The first pattern of such a list that can hardly match the name of a service, or of a script below conf/scripts;
/// empty when each can. Throws std::bad_alloc.
std::u16string UselessPattern(std::u16string_view list, bool areScripts);

/// The first pattern of such a list with a blank in it, where a comma was probably meant; names such as "Some Agent -
/// Host" are passed over. Empty when no pattern has one. Throws std::bad_alloc.
std::u16string UnpartedPattern(std::u16string_view list);

/// The first pattern that is the word "all" or "any", in any letter case, which stands for that name alone; empty when
/// no pattern is. Throws std::bad_alloc.
std::u16string WordForAll(std::u16string_view list);

}  // namespace kv
