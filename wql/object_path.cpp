#include "wql/object_path.h"

#include "facts/host_names.h"

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
        path += std::get<std::u16string>(BroughtTo(CimType::string, value.isNull() ? CimValue(0) : value).held);
    }
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

}  // namespace kv::wql
