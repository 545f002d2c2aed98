// Status codes of the platform: one code space for the store, its cache and its bundles.
#pragma once

#include <cerrno>
#include <cstdint>

namespace vshost {

using VsStatus = uint32_t;

inline constexpr VsStatus STATUS_OK = 0;
inline constexpr VsStatus STATUS_FAILURE = 0x0BAD0001;
inline constexpr VsStatus STATUS_NOT_FOUND = 0x0BAD0003;
inline constexpr VsStatus STATUS_EXISTS = 0x0BAD0005;
inline constexpr VsStatus STATUS_TOO_LARGE = 0x0BAD0006;
inline constexpr VsStatus STATUS_BAD_PARAM = 0x0BAD0007;
inline constexpr VsStatus STATUS_IO_ERROR = 0x0BAD0008;
inline constexpr VsStatus STATUS_BUSY = 0x0BAD0004; // vshostd doesn't answer
inline constexpr VsStatus STATUS_NO_MEMORY = 0x0BAD0014;
inline constexpr VsStatus STATUS_NO_SPACE = 0x0BAD001A;
inline constexpr VsStatus STATUS_READ_ONLY = 0x0BAD0022;

// The status of the store for a failed system call on one of the host's files.
constexpr VsStatus StatusOfErrno(int error)
{
    switch (error) {
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
        return STATUS_NO_SPACE;
    case EACCES:
    case EPERM:
    case EROFS:
        return STATUS_READ_ONLY;
    case ENOMEM:
        return STATUS_NO_MEMORY;
    default:
        return STATUS_IO_ERROR;
    }
}

// The errno value for a status, which is `absent` for STATUS_NOT_FOUND.
constexpr int ErrnoOf(VsStatus status, int absent = ENOENT)
{
    switch (status) {
    case STATUS_OK:
        return 0;
    case STATUS_NOT_FOUND:
        return absent;
    case STATUS_BAD_PARAM:
        return EINVAL;
    case STATUS_NO_MEMORY:
        return ENOMEM;
    case STATUS_NO_SPACE:
        return ENOSPC;
    case STATUS_READ_ONLY:
        return EROFS;
    case STATUS_BUSY:
        return EBUSY;
    default:
        return EIO;
    }
}

}
