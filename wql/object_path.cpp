#include "wql/object_path.h"

#include <algorithm>
#include <utility>

#include "facts/network/host_names.h"
#include "wql/class_tree.h"
#include "wql/wql_token.h"

namespace kv::wql {

namespace {

void AppendQuoted(std::u16string& path, std::u16string_view text) {
    path += u'"';
    for (const char16_t unit : text) {
        if (unit == u'"' || unit == u'\\') path += u'\\';
        path += unit;
    }
    path += u'"';
}

void AppendValue(std::u16string& path, const CimValue& value) {
    if (const auto* text = std::get_if<std::u16string>(&value.held)) {
        AppendQuoted(path, *text);
    } else if (const auto* truth = std::get_if<bool>(&value.held)) {
        path += *truth ? u"TRUE" : u"FALSE";
    } else {
        path += value.isNull() ? u"\"\"" : std::get<std::u16string>(BroughtTo(CimType::string, value).held);
    }
}

bool TakeSign(std::u16string_view& rest, std::u16string_view sign) {
    std::u16string_view after = rest;
    if (TakeToken(after).spelling != sign) return false;
    rest = after;
    return true;
}

bool TakeName(std::u16string_view& rest, std::u16string& name) {
    const Token token = TakeToken(rest);
    name = token.spelling;
    return token.kind == TokenKind::word;
}

bool TakeValue(std::u16string_view& rest, CimValue& value) {
    const Token token = TakeToken(rest);
    if (token.kind == TokenKind::string || token.kind == TokenKind::number) {
        value = ValueOfLiteral(token.literal);
        return true;
    }
    if (CompareNames(token.spelling, u"TRUE") == 0) value = true;
    if (CompareNames(token.spelling, u"FALSE") == 0) value = false;
    return !value.isNull();
}

/// What follows the class's name and a point.
bool TakeKeys(std::u16string_view& rest, std::vector<PathKey>& keys) {
    do {
        PathKey& key = keys.emplace_back();
        if (!TakeName(rest, key.name) || !TakeSign(rest, u"=") || !TakeValue(rest, key.value)) return false;
    } while (TakeSign(rest, u","));
    return true;
}

/// A number in quotes is that number where the other is not in quotes.
std::partial_ordering CompareKeys(const CimValue& left, const CimValue& right) {
    const auto* leftText = std::get_if<std::u16string>(&left.held);
    const auto* rightText = std::get_if<std::u16string>(&right.held);
    if ((leftText != nullptr) == (rightText != nullptr)) return CompareValues(left, right);
    return CompareValues(leftText != nullptr ? NumberOfText(*leftText) : left,
                         rightText != nullptr ? NumberOfText(*rightText) : right);
}

bool HasKey(const ObjectName& object, const PathKey& key) {
    return std::ranges::any_of(object.keys, [&key](const PathKey& own) {
        const bool isSame = own.name.empty() || key.name.empty() || CompareNames(own.name, key.name) == 0;
        return isSame && CompareKeys(own.value, key.value) == 0;
    });
}

/// A namespace's path without the computer's name before it; absent if it names another computer.
std::optional<std::u16string_view> WithoutServer(std::u16string_view path) {
    if (!path.starts_with(u"\\\\")) return path;
    path.remove_prefix(2);
    const std::u16string_view server = path.substr(0, path.find(u'\\'));
    path.remove_prefix(std::min(server.size() + 1, path.size()));
    const std::u16string ownName = facts::HostName();
    for (const std::u16string_view own :
         {std::u16string_view(u"."), std::u16string_view(u"localhost"), std::u16string_view(u"127.0.0.1"),
          std::u16string_view(u"::1"), std::u16string_view(ownName)}) {
        if (CompareNames(server, own) == 0) return path;
    }
    return std::nullopt;
}

/// The length of a path's namespace with the colon behind it; 0 if it has none.
std::size_t NamespaceLength(std::u16string_view path) {
    const std::size_t colon = path.substr(0, path.find_first_of(u"\"'")).rfind(u':');
    return colon == path.npos ? 0 : colon + 1;
}

}  // namespace

std::u16string RelativePath(std::u16string_view className, const std::vector<PathKey>& keys) {
    std::u16string path(className);
    if (keys.empty()) return path + u"=@";
    char16_t separator = u'.';
    for (const PathKey& key : keys) {
        path += separator;
        path.append(key.name) += u'=';
        AppendValue(path, key.value);
        separator = u',';
    }
    return path;
}

std::u16string ObjectPath(std::u16string_view className, const std::vector<PathKey>& keys) {
    return u"\\\\" + facts::HostName() + u"\\root\\cimv2:" + RelativePath(className, keys);
}

WmiStatus CheckNamespace(std::u16string_view path) {
    std::u16string plain(path);
    std::ranges::replace(plain, u'/', u'\\');
    const std::optional<std::u16string_view> local = WithoutServer(plain);
    if (!local) return wmi_status::serverUnavailable;
    return CompareNames(*local, u"ROOT\\CIMV2") == 0 ? wmi_status::ok : wmi_status::invalidNamespace;
}

std::u16string_view WithoutNamespace(std::u16string_view path) { return path.substr(NamespaceLength(path)); }

std::optional<ObjectName> ParseObjectPath(std::u16string_view path) {
    std::u16string_view rest = WithoutNamespace(path);
    ObjectName object;
    if (rest.size() != path.size()) object.place = CheckNamespace(path.substr(0, NamespaceLength(path) - 1));
    if (!TakeName(rest, object.className)) return std::nullopt;
    bool isRead = false;
    if (TakeSign(rest, u".")) {
        isRead = TakeKeys(rest, object.keys);
    } else if (TakeSign(rest, u"=")) {
        isRead = TakeSign(rest, u"@") || TakeValue(rest, object.keys.emplace_back().value);
    }
    const bool isWhole = TakeToken(rest).kind == TokenKind::end;
    return isRead && isWhole ? std::optional(std::move(object)) : std::nullopt;
}

bool AreSame(const ObjectName& left, const ObjectName& right) {
    return !IsFailure(left.place) && !IsFailure(right.place) && CompareNames(left.className, right.className) == 0 &&
           left.keys.size() == right.keys.size() &&
           std::ranges::all_of(left.keys, [&right](const PathKey& key) { return HasKey(right, key); });
}

}  // namespace kv::wql
