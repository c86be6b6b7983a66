#include "tools/kvagentctl/readable_file.h"

#include <algorithm>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <iterator>
#include <new>
#include <stdexcept>
#include <utility>

#include "collection/plan_members.h"
#include "foundation/file_utils.h"
#include "foundation/open_file.h"
#include "platform/console_tool.h"
#include "platform/messages.h"
#include "platform/utf.h"

namespace kv::control {

namespace {

namespace error = platform::error;

constexpr const char* directory = "is a directory, not a file";
constexpr const char* device = "is a device or a pipe, not a file";

/// A message of the reader without the file's name ahead, as the end of a sentence.
std::string WithoutName(const std::string& message, std::u16string_view path) {
    const std::string name = platform::Utf8FromWide(path) + ": ";
    return message.starts_with(name) ? message.substr(name.size()) : message;
}

}  // namespace

std::string NativeName(std::u16string_view path) { return platform::Utf8FromWide(platform::Files().NativePath(path)); }

std::string FileFault(std::u16string_view path) {
    if (IsDirectory(path)) return directory;
    OpenFile file;
    platform::FileInformation information;
    platform::Error result = file.Open(path, platform::FileAccess::read, platform::FileShare::readWrite,
                                       platform::FileDisposition::openExisting);
    if (result == error::success) result = platform::Files().GetFileInformationByHandle(file.handle, information);
    if (result == error::fileNotFound || result == error::pathNotFound)
        return MayExist(path) ? "is a link to what does not exist" : "does not exist";
    if (result == error::accessDenied) return "may not be read; " + std::string(platform::DeniedAccessText());
    if (result != error::success) return "cannot be read: " + ReasonText(result);
    const bool isDevice = (information.attributes & platform::file_attribute::device) != 0;
    return isDevice ? device : "";
}

std::string OwnFileFault(std::u16string_view path) {
    const std::string fault = FileFault(path);
    return fault == directory || fault == device ? fault + "; move it away" : fault;
}

std::string ReasonText(platform::Error failure) {
    if (failure == error::directoryName) return "it is not a directory; move it away";
    std::string text = platform::MessageInLine(failure);
    if (text.ends_with('.')) text.pop_back();
    if (text.empty()) return fmt::format("error {}", failure);
    text = fmt::format("{} (error {})", text, failure);
    return failure == error::accessDenied ? fmt::format("{}; {}", text, platform::DeniedAccessText()) : text;
}

PlanFile ReadPlanFile(std::u16string_view path) {
    PlanFile plan;
    if (const std::string fault = FileFault(path); !fault.empty()) {
        plan.failure = "it " + fault;
        return plan;
    }
    HashTablePtr document = MakeHashTable();
    if (!document) throw std::bad_alloc();
    const JsonReadResult read = JSONFileToHash(document.get(), path, IsPlanMember);
    const std::string message = WithoutName(read.message, path);
    if (read.ok) {
        plan.document = std::move(document);
        plan.notice = message;
        plan.repeated = read.repeated;
    } else {
        const bool isMalformed = message.find(" at offset ") != std::string::npos;
        plan.failure = isMalformed ? "it is not a plan in JSON: " + message : message;
    }
    return plan;
}

NamedPlan::NamedPlan(const std::string& name) : path_(platform::WideFromUtf8(name)) {
    constexpr std::size_t mostBytes = std::size_t{128} << 20;  // more than a plan may have
    const std::filesystem::path pipe(std::u8string(name.begin(), name.end()));
    std::error_code unknown;
    if (!std::filesystem::is_fifo(pipe, unknown)) return;
    std::ifstream source(pipe, std::ios::binary);
    std::string bytes;
    for (char buffer[65536]; source && bytes.size() <= mostBytes;) {
        source.read(buffer, sizeof buffer);
        bytes.append(buffer, static_cast<std::size_t>(source.gcount()));
    }
    if (bytes.size() > mostBytes) throw std::runtime_error(name + " brings more than 128 MB, which is not a plan");
    path_ = folder_.emplace().path() + u"\\plan";
    const std::string failure =
        platform::WriteFileWhole(platform::Utf8FromWide(platform::Files().NativePath(path_)), bytes);
    if (!failure.empty()) throw std::runtime_error(fmt::format("{} cannot be kept meanwhile: {}", name, failure));
}

}  // namespace kv::control
