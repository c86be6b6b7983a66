#include "zip/zip_item_name.h"

#include <array>

#include "platform/utf.h"

namespace kv {

namespace {

void SkipDrives(std::u16string_view& name) {
    while (name.size() > 1 && name[1] == u':') name.remove_prefix(2);
}

void SkipOne(std::u16string_view& name, char16_t separator) {
    if (name.empty() || name.front() != separator) return;
    name.remove_prefix(1);
    SkipDrives(name);
}

/// A part that climbs out of its directory. A text that a name does not hold is not looked for in the rest of the name:
/// otherwise a name of 65,535 slashes would take seconds.
struct Climb {
    std::u16string_view text;
    bool isGone = false;
};

void SkipBehind(std::u16string_view& name, Climb& climb) {
    if (climb.isGone) return;
    const std::size_t at = name.find(climb.text);
    climb.isGone = at == name.npos;
    if (!climb.isGone) name.remove_prefix(at + climb.text.size());
}

}  // namespace

std::u16string CleansedName(std::string_view utf8) {
    const std::u16string whole = platform::WideFromUtf8(utf8.substr(0, utf8.find('\0')));
    std::u16string_view name = whole;
    std::array<Climb, 4> climbs{{{u"\\..\\"}, {u"\\../"}, {u"/../"}, {u"/..\\"}}};
    std::size_t before = 0;
    // At most one separator of each kind is removed before the climbs are looked for, so that "\\..\\x" becomes "x".
    do {
        before = name.size();
        SkipDrives(name);
        SkipOne(name, u'\\');
        SkipOne(name, u'/');
        for (Climb& climb : climbs) SkipBehind(name, climb);
    } while (name.size() < before);
    return std::u16string(name);
}

}  // namespace kv
