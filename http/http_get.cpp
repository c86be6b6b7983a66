// One attempt of a GET: its body goes into a file, into memory, or nowhere.
#include <array>
#include <cstdint>
#include <new>
#include <string>
#include <utility>

#include "foundation/file_utils.h"
#include "foundation/log.h"
#include "http/http_answers.h"
#include "http/http_attempt.h"
#include "platform/files.h"

namespace kv {

namespace {

using platform::Error;
using platform::Files;
using platform::Http;
namespace error = platform::error;

constexpr char routine[] = "InternetGetRequestEx";

/// A download moves this many bytes a round, through a buffer of this size.
constexpr std::size_t downloadStep = 50;
constexpr std::size_t downloadBuffer = 208;

/// A download is stored up to this many bytes. Query configurations run to some megabytes; the limit keeps a server
/// gone wrong from filling the disk.
constexpr std::uint64_t maxDownloadBytes = std::uint64_t{1} << 30;

/// The file that a download goes to. One that cannot be opened becomes a failure when the first byte is to be written.
class DestinationFile {
  public:
    explicit DestinationFile(std::u16string_view path) {
        const Error failure = Files().CreateFileW(path, platform::FileAccess::write, platform::FileShare::read,
                                                  platform::FileDisposition::createAlways, file_);
        if (failure == error::success) return;
        file_ = 0;
        Log1("%s :  The destination file %s cannot be created --> %d \n", routine, path, failure);
    }
    DestinationFile(const DestinationFile&) = delete;
    DestinationFile& operator=(const DestinationFile&) = delete;
    ~DestinationFile() {
        if (file_ == 0) return;
        if (const Error failure = Files().FlushFileBuffers(file_)) LogFailure("FlushFileBuffers", failure);
        if (const Error failure = Files().CloseHandle(file_)) LogFailure("CloseHandle", failure);
    }

    Error Write(const std::byte* data, std::size_t size) const {
        return file_ == 0 ? error::invalidHandle : Files().WriteFile(file_, data, size);
    }

  private:
    static void LogFailure(const char* step, Error failure) {
        Log1("%s :  Error in %s --> %d \n", routine, step, failure);
    }

    platform::FileHandle file_ = 0;
};

Error DownloadBody(const HttpAttempt& attempt, const DestinationFile& file) {
    for (std::uint64_t stored = 0;;) {
        std::array<std::byte, downloadBuffer> buffer{};
        std::size_t read = 0;
        if (const Error failure = Http().WinHttpReadData(attempt.request.get(), buffer.data(), downloadStep, read)) {
            LogFailedStep("%s :  Error in WinHttpReadData --> %d \n", attempt.routine, failure);
            TellOfBrokenAnswer(attempt, failure);
            return failure;
        }
        if (read == 0) return error::success;
        stored += read;
        if (stored > maxDownloadBytes) {
            Log1("%s : The download from the server %s is given up, as it is longer than %d bytes\n", attempt.routine,
                 attempt.target.server, maxDownloadBytes);
            return error::winHttpInvalidServerResponse;
        }
        if (const Error failure = file.Write(buffer.data(), read)) {
            LogFailedStep("%s :  Error in WriteFile --> %d \n", attempt.routine, failure);
            return failure;
        }
    }
}

/// What came of a body.
struct ReceivedBody {
    std::u16string text;         // of UTF-16LE; empty when it was not wanted
    std::size_t bytes = 0;       // that came
    Error end = error::success;  // why it ended early
};

/// Takes the next piece that is there; its size is 0 at the end of the body and after a failure.
Error ReadPiece(const HttpAttempt& attempt, std::string& piece) {
    piece.clear();
    std::size_t size = 0;
    if (const Error failure = Http().WinHttpQueryDataAvailable(attempt.request.get(), size)) {
        Log1("InternetGetRequestEx : Error %u in WinHttpQueryDataAvailable.\n", failure);
        HttpGetLastError(failure);
        TellOfBrokenAnswer(attempt, failure);
        return failure;
    }
    if (size == 0) return error::success;
    piece.resize(size + size % 2);  // whole 16-bit characters: only the last piece comes out shorter
    const Error failure =
        Http().WinHttpReadData(attempt.request.get(), reinterpret_cast<std::byte*>(piece.data()), piece.size(), size);
    piece.resize(failure ? 0 : size);
    if (failure) {
        Log1("InternetGetRequestEx : Error %u in WinHttpReadData.\n", failure);
        HttpGetLastError(failure);
        TellOfBrokenAnswer(attempt, failure);
    }
    return failure;
}

/// Reads a body to its end, a failure or the limit, and keeps its text if that is wanted.
ReceivedBody ReadBody(const HttpAttempt& attempt, bool wanted) {
    ReceivedBody body;
    try {
        std::string piece;
        while (body.bytes < maxResponseBytes) {
            body.end = ReadPiece(attempt, piece);
            if (piece.empty()) return body;
            if (wanted) body.text += TextFromUtf16LittleEndian(piece);
            body.bytes += piece.size();
        }
        Log1("InternetGetRequestEx : The answer of the server %s is cut after %d bytes\n", attempt.target.server,
             body.bytes);
    } catch (const std::bad_alloc&) {
        Log1("InternetGetRequestEx :Out of memory\n");
        body.end = error::notEnoughMemory;
    }
    return body;
}

/// Reads the body into the response, or throws it away when response is null. What came before a failure is kept and
/// counts as the answer. A failure before any of it is the result: nothing else tells such a body from an empty one. An
/// answer without a body leaves the code of an earlier resend round standing.
Error ReceiveBody(const HttpAttempt& attempt, OptionalText* response) {
    ReceivedBody body = ReadBody(attempt, response != nullptr);
    if (body.bytes == 0) return body.end != error::success ? body.end : attempt.result;
    if (response) *response = std::move(body.text);
    return error::success;
}

}  // namespace

Error InternetGetRequestEx(const TransactionTarget& target, std::u16string_view url,
                           std::optional<std::u16string_view> destinationFile, OptionalText* response, RequestKind kind,
                           bool keepAlive) {
    Log3("\t Inside InternetGetRequestEx() \n");
    std::optional<DestinationFile> file;
    if (destinationFile) file.emplace(*destinationFile);
    HttpAttempt attempt{
        .routine = routine,
        .target = target,
        .url = url,
        .verb = u"GET",
        .acceptTypes = u"*/*",
        .securityFlags =
            platform::ignoreUnknownAuthority | platform::ignoreInvalidCommonName | platform::ignoreInvalidDate,
        .limitConnectTime = kind == RequestKind::REQUEST_GET_TIMED,
        .keepAlive = keepAlive,
        .restartReopensSession = true,
    };
    if (const Error failure = SendAndReceive(attempt)) return failure;
    std::u16string headers;
    if (const Error failure = ReadRawHeaders(attempt, headers)) return failure;
    if (kind == RequestKind::REQUEST_GET_HEADERS) ParseHeader(headers);
    std::uint32_t status = 0;
    if (const Error failure = ReadStatus(attempt, status)) return failure;
    if (status == statusProxyAuthentication) return status;
    if (status != statusOk) {
        Log1("InternetGetRequestEx : Failed with the http status code %d \n", status);
        NoteRefusal(attempt, status);
        return error::invalidData;
    }
    if (file) {
        if (const Error failure = DownloadBody(attempt, *file)) return failure;
        Log2(
            "InternetGetRequestEx : Successfully downloaded the file %s from the server %s to the destination file %s "
            "\n",
            url, target.server, *destinationFile);
        return error::success;
    }
    return ReceiveBody(attempt, response);
}

}  // namespace kv
