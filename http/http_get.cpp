// One attempt of a GET: into a file, into memory, or with its body thrown away.
#include <array>
#include <cstdint>
#include <new>

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

/// The file that a download goes to. One that cannot be opened is no failure until the first byte is to be written.
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

/// Reads one chunk of the body behind what has come. 0 when there is no more.
Error ReadChunk(const HttpAttempt& attempt, std::string& body) {
    std::size_t available = 0;
    if (const Error failure = Http().WinHttpQueryDataAvailable(attempt.request.get(), available)) {
        Log1("InternetGetRequestEx : Error %u in WinHttpQueryDataAvailable.\n", failure);
        HttpGetLastError(failure);
        return failure;
    }
    if (available == 0) return error::success;
    const std::size_t former = body.size();
    const std::size_t wanted = available + available % 2;  // whole 16-bit characters
    body.resize(former + wanted);
    std::size_t read = 0;
    const Error failure =
        Http().WinHttpReadData(attempt.request.get(), reinterpret_cast<std::byte*>(body.data() + former), wanted, read);
    body.resize(former + (failure ? 0 : read));
    if (failure) {
        Log1("InternetGetRequestEx : Error %u in WinHttpReadData.\n", failure);
        HttpGetLastError(failure);
    }
    return failure;
}

/// What came of a body: the bytes received, and the failure that ended it early.
struct BodyEnd {
    std::size_t received = 0;
    Error failure = error::success;
};

/// Reads the body, or throws it away where it is not wanted.
void ReadChunks(const HttpAttempt& attempt, bool wanted, std::string& body, BodyEnd& end) {
    for (;;) {
        const std::size_t former = body.size();
        end.failure = ReadChunk(attempt, body);
        const std::size_t chunk = body.size() - former;
        if (chunk == 0) return;
        end.received += chunk;
        if (!wanted) body.clear();
        if (end.received >= maxResponseBytes) {
            Log1("InternetGetRequestEx : The answer of the server %s is cut after %d bytes\n", attempt.target.server,
                 end.received);
            return;
        }
    }
}

/// Takes a step that may run out of memory; false when it did.
template <class Step>
bool HasMemoryFor(Step step) {
    try {
        step();
        return true;
    } catch (const std::bad_alloc&) {
        Log1("InternetGetRequestEx :Out of memory\n");
        return false;
    }
}

/// Reads the body as UTF-16LE text into the response, or throws it away where none is wanted. What came before a
/// failure is kept and counts as the answer; a failure before any of it is the result, as nothing tells such a body
/// from an empty one otherwise. An answer without a body leaves the code of an earlier resend round standing.
Error ReceiveBody(const HttpAttempt& attempt, OptionalText* response) {
    std::string body;
    BodyEnd end;
    const bool whole = HasMemoryFor([&] { ReadChunks(attempt, response != nullptr, body, end); });
    const bool kept = body.empty() || HasMemoryFor([&] { *response = TextFromUtf16LittleEndian(body); });
    if (!kept || (!whole && body.empty())) return error::notEnoughMemory;
    if (end.received > 0 || !body.empty()) return error::success;
    return end.failure != error::success ? end.failure : attempt.result;
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
