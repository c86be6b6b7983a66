// The system error numbers that the agent sees and writes to its log, the same on every system.
//
// One list holds each number's name, value and text. Where the system has no such texts, FormatMessageW
// (platform/messages.h) takes them from here. Zero is success. A backend has one routine for each kind of error that
// its system and libraries give, which turns it into one of these.
#pragma once

#include <cstdint>

namespace platform {

using Error = std::uint32_t;

// clang-format off
#define KV_SYSTEM_ERRORS(X)                                                                          \
    X(success,                  0, "The operation completed successfully.")                          \
    X(invalidFunction,          1, "Incorrect function.")                                            \
    X(fileNotFound,             2, "The system cannot find the file specified.")                     \
    X(pathNotFound,             3, "The system cannot find the path specified.")                     \
    X(tooManyOpenFiles,         4, "The system cannot open the file.")                               \
    X(accessDenied,             5, "Access is denied.")                                              \
    X(invalidHandle,            6, "The handle is invalid.")                                         \
    X(notEnoughMemory,          8, "Not enough memory resources are available to process this command.") \
    X(badFormat,               11, "An attempt was made to load a program with an incorrect format.") \
    X(invalidData,             13, "The data is invalid.")                                           \
    X(outOfMemory,             14, "Not enough storage is available to complete this operation.")    \
    X(notSameDevice,           17, "The system cannot move the file to a different disk drive.")     \
    X(noMoreFiles,             18, "There are no more files.")                                       \
    X(writeProtect,            19, "The media is write protected.")                                  \
    X(writeFault,              29, "The system cannot write to the specified device.")               \
    X(readFault,               30, "The system cannot read from the specified device.")              \
    X(generalFailure,          31, "A device attached to the system is not functioning.")            \
    X(sharingViolation,        32, "The process cannot access the file because it is being used by another process.") \
    X(lockViolation,           33, "The process cannot access the file because another process has locked a portion of the file.") \
    X(notSupported,            50, "The request is not supported.")                                  \
    X(fileExists,              80, "The file exists.")                                               \
    X(invalidParameter,        87, "The parameter is incorrect.")                                    \
    X(diskFull,               112, "There is not enough space on the disk.")                         \
    X(insufficientBuffer,     122, "The data area passed to a system call is too small.")            \
    X(invalidName,            123, "The filename, directory name, or volume label syntax is incorrect.") \
    X(directoryNotEmpty,      145, "The directory is not empty.")                                    \
    X(busy,                   170, "The requested resource is in use.")                              \
    X(alreadyExists,          183, "Cannot create a file when that file already exists.")            \
    X(fileNameTooLong,        206, "The filename or extension is too long.")                         \
    X(moreData,               234, "More data is available.")                                        \
    X(waitTimeout,            258, "The wait operation timed out.")                                  \
    X(noMoreItems,            259, "No more data is available.")                                     \
    X(directoryName,          267, "The directory name is invalid.")                                 \
    X(databaseCorrupt,       1015, "The registry is corrupted.")                                     \
    X(keyDeleted,            1018, "Illegal operation attempted on a registry key that has been marked for deletion.") \
    X(dependentServicesRunning, 1051, "A stop control has been sent to a service that other running services are dependent on.") \
    X(invalidServiceControl,   1052, "The requested control is not valid for this service.")         \
    X(serviceRequestTimeout,   1053, "The service did not respond to the start or control request in a timely fashion.") \
    X(serviceAlreadyRunning,   1056, "An instance of the service is already running.")               \
    X(serviceDisabled,         1058, "The service cannot be started, either because it is disabled or because it has no enabled devices associated with it.") \
    X(serviceDoesNotExist,     1060, "The specified service does not exist as an installed service.") \
    X(serviceCannotAcceptControl, 1061, "The service cannot accept control messages at this time.")  \
    X(serviceNotActive,        1062, "The service has not been started.")                            \
    X(serviceControllerConnect, 1063, "The service process could not connect to the service controller.") \
    X(serviceSpecificError,    1066, "The service has returned a service-specific error code.")      \
    X(processAborted,          1067, "The process terminated unexpectedly.")                         \
    X(serviceDependencyFailed, 1068, "The dependency service or group failed to start.")             \
    X(serviceExists,           1073, "The specified service already exists.")                        \
    X(serviceDependencyDeleted, 1075, "The dependency service does not exist or has been marked for deletion.") \
    X(rpcServerUnavailable,    1722, "The RPC server is unavailable.")                               \
    X(hostNotFound,         11001, "No such host is known.")                                         \
    X(winHttpTimeout,       12002, "The operation timed out.")                                       \
    X(winHttpInternalError, 12004, "An internal error occurred in the HTTP transport.")              \
    X(winHttpInvalidUrl,    12005, "The URL is invalid.")                                            \
    X(winHttpUnrecognizedScheme, 12006, "The URL does not use a recognized protocol.")               \
    X(winHttpNameNotResolved, 12007, "The server name or address could not be resolved.")            \
    X(winHttpInvalidOption, 12009, "The option is invalid.")                                         \
    X(winHttpLoginFailure,  12015, "The login request was denied.")                                  \
    X(winHttpOperationCancelled, 12017, "The operation has been canceled.")                          \
    X(winHttpIncorrectHandleType, 12018, "The supplied handle is the wrong type for the requested operation.") \
    X(winHttpIncorrectHandleState, 12019, "The handle is in the wrong state for the requested operation.") \
    X(winHttpCannotConnect, 12029, "A connection with the server could not be established.")         \
    X(winHttpConnectionError, 12030, "The connection with the server was terminated abnormally.")    \
    X(winHttpResendRequest, 12032, "The request must be resent.")                                    \
    X(winHttpClientCertificateNeeded, 12044, "The server is requesting client authentication.")      \
    X(winHttpHeaderNotFound, 12150, "The requested header was not found.")                           \
    X(winHttpInvalidServerResponse, 12152, "The server returned an invalid or unrecognized response.") \
    X(winHttpRedirectFailed, 12156, "The HTTP redirect request failed.")                             \
    X(winHttpSecureChannelError, 12157, "An error occurred in the secure channel support.")          \
    X(winHttpSecureFailure, 12175, "A security error occurred.")                                     \
    X(winHttpHeaderSizeOverflow, 12182, "The size of headers received exceeded the limit.")
// clang-format on

namespace error {
#define KV_DECLARE_ERROR(name, number, text) inline constexpr Error name = number;
KV_SYSTEM_ERRORS(KV_DECLARE_ERROR)
#undef KV_DECLARE_ERROR
}  // namespace error

}  // namespace platform
