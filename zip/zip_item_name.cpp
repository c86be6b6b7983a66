#include "zip/zip_item_name.h"

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

void SkipBehind(std::u16string_view& name, std::u16string_view climb) {
    if (const std::size_t at = name.find(climb); at != name.npos) name.remove_prefix(at + climb.size());
}

}  // namespace

std::u16string CleansedName(std::string_view utf8) {
    const std::u16string whole = platform::WideFromUtf8(utf8.substr(0, utf8.find('\0')));
    std::u16string_view name = whole;
    std::size_t before = 0;
    // At most one separator of each kind goes before the climbs are looked for, so that "\\..\\x" becomes "x".
    do {
        before = name.size();
        SkipDrives(name);
        SkipOne(name, u'\\');
        SkipOne(name, u'/');
        for (const std::u16string_view climb : {u"\\..\\", u"\\../", u"/../", u"/..\\"}) SkipBehind(name, climb);
    } while (name.size() < before);
    return std::u16string(name);
}

}  // namespace kv
