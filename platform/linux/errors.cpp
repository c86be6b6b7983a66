#include <cerrno>

#include "platform/linux/linux.h"

namespace platform {

Error ErrorFromErrno(int code) {
    switch (code) {
        case 0:
            return error::success;
        case ENOENT:
            return error::fileNotFound;
        case ENOTDIR:
            return error::pathNotFound;
        case EMFILE:
        case ENFILE:
            return error::tooManyOpenFiles;
        case EACCES:
        case EPERM:
        case EISDIR:
            return error::accessDenied;
        case EBADF:
            return error::invalidHandle;
        case ENOMEM:
            return error::notEnoughMemory;
        case ENOEXEC:
            return error::badFormat;
        case EXDEV:
            return error::notSameDevice;
        case EROFS:
            return error::writeProtect;
        case ETXTBSY:
            return error::sharingViolation;
        case EINVAL:
            return error::invalidParameter;
        case ENOSPC:
        case EDQUOT:
        case EFBIG:
            return error::diskFull;
        case EILSEQ:
        case ELOOP:
            return error::invalidName;
        case ENOTEMPTY:
            return error::directoryNotEmpty;
        case EAGAIN:
        case EBUSY:
            return error::busy;
        case EEXIST:
            return error::alreadyExists;
        case E2BIG:
        case ENAMETOOLONG:
            return error::fileNameTooLong;
        case ETIMEDOUT:
            return error::waitTimeout;
        case ENOSYS:
        case EOPNOTSUPP:
            return error::invalidFunction;
        default:
            return error::generalFailure;
    }
}

}  // namespace platform
