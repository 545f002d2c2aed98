"""Status codes. Made from include/vswitchctl.h by bindings/python/generate.py."""

from enum import IntEnum


class Status(IntEnum):
    """What an operation returned."""

    OK = 0  # the operation succeeded
    FAILURE = 0x0BAD0001  # EINVAL, an unlisted errno, a failed command or a malformed value.
    WOULD_BLOCK = 0x0BAD0002  # EAGAIN: try again later.
    NOT_FOUND = 0x0BAD0003  # ENOENT; no switch has the alias; no such property or entry.
    BUSY = 0x0BAD0004  # EBUSY: device or resource busy.
    EXISTS = 0x0BAD0005  # EEXIST; an entry to be added is there already.
    TOO_LARGE = 0x0BAD0006  # EFBIG: too large.
    BAD_PARAM = 0x0BAD0007  # no errno; null pointer, bad value, wrong class
    IO_ERROR = 0x0BAD0008  # EIO: input or output error.
    NAME_TOO_LONG = 0x0BAD000D  # ENAMETOOLONG: name too long.
    BAD_DESCRIPTOR = 0x0BAD000E  # EBADF: bad file descriptor.
    NO_DEVICE = 0x0BAD000F  # ENODEV: no such device.
    NO_DEVICE_OR_ADDRESS = 0x0BAD0011  # ENXIO: no such device or address.
    BAD_ADDRESS = 0x0BAD0013  # EFAULT: bad address.
    NO_MEMORY = 0x0BAD0014  # ENOMEM; no memory; a caller's buffer is too small.
    TOO_MANY_OPEN_FILES = 0x0BAD0018  # EMFILE: the process has too many open files.
    FILE_TABLE_FULL = 0x0BAD0019  # ENFILE: the host has too many open files.
    NO_SPACE = 0x0BAD001A  # ENOSPC: no space left.
    NOT_IMPLEMENTED = 0x0BAD0020  # ENOSYS: function not implemented.
    TIMED_OUT = 0x0BAD0021  # ETIMEDOUT: timed out.
    READ_ONLY = 0x0BAD0022  # EROFS: read-only file system.
    ADDRESS_IN_USE = 0x0BAD0024  # EADDRINUSE: address already in use.
    NOT_CONNECTED = 0x0BAD002E  # ENOTCONN: not connected.
    INTERRUPTED = 0x0BAD0032  # EINTR: interrupted by a signal.
    CANCELED = 0x0BAD0038  # ECANCELED: operation canceled.
    NOT_SUPPORTED = 0x0BAD003C  # EOPNOTSUPP: operation not supported.
    NETWORK_DOWN = 0x0BAD0047  # ENETDOWN: network is down.
    NETWORK_UNREACHABLE = 0x0BAD0048  # ENETUNREACH: network unreachable.
    NETWORK_RESET = 0x0BAD0049  # ENETRESET: connection dropped by the network.
    CONNECTION_ABORTED = 0x0BAD004A  # ECONNABORTED: connection aborted.
    CONNECTION_RESET = 0x0BAD004B  # ECONNRESET: connection reset by the peer.
    SHUT_DOWN = 0x0BAD004D  # ESHUTDOWN: endpoint shut down.
    TOO_MANY_REFERENCES = 0x0BAD004E  # ETOOMANYREFS: too many references.
    CONNECTION_REFUSED = 0x0BAD004F  # ECONNREFUSED: connection refused.
    HOST_DOWN = 0x0BAD0050  # EHOSTDOWN: host is down.
    HOST_UNREACHABLE = 0x0BAD0051  # EHOSTUNREACH: host unreachable.
    BROKEN_PIPE = 0x0BAD0053  # EPIPE: broken pipe.
    NOT_A_DIRECTORY = 0x0BAD0054  # ENOTDIR: not a directory.
    IS_A_DIRECTORY = 0x0BAD0055  # EISDIR: is a directory.
    NOT_EMPTY = 0x0BAD0056  # ENOTEMPTY: directory not empty.
    PERMISSION_DENIED = 0x0BAD005A  # EACCES: permission denied.
    NOT_PERMITTED = 0x0BAD005B  # EPERM: operation not permitted.
    OUT_OF_RANGE = 0x0BAD005D  # ERANGE: result out of range.
    NO_CHILD = 0x0BAD0061  # ECHILD: no child process.
    NO_PROCESS = 0x0BAD0062  # ESRCH: no such process.
    LINK_LOOP = 0x0BAD0063  # ELOOP: too many symbolic links.
    CROSS_DEVICE = 0x0BAD0064  # EXDEV: link across devices.
    NOT_A_SOCKET = 0x0BAD0065  # ENOTSOCK: not a socket.
    ILLEGAL_SEEK = 0x0BAD0066  # ESPIPE: illegal seek.
    FAMILY_NOT_SUPPORTED = 0x0BAD0067  # EAFNOSUPPORT: address family not supported.
    ALREADY_CONNECTED = 0x0BAD0068  # EISCONN: already connected.
    BAD_DEVICE_COMMAND = 0x0BAD0086  # ENOTTY: not a command of this device.
    IN_PROGRESS = 0x0BAD0088  # EINPROGRESS: operation in progress.
    BAD_EXECUTABLE = 0x0BAD009B  # ENOEXEC: not an executable.
    TOO_MANY_USERS = 0x0BAD00A7  # EUSERS: too many users.
    DEADLOCK = 0x0BAD00A9  # EDEADLK: deadlock avoided.
    ARGUMENTS_TOO_LONG = 0x0BAD00B4  # E2BIG: argument list too long.
    ALREADY_IN_PROGRESS = 0x0BAD00DA  # EALREADY: operation already in progress.
    NO_LOCKS = 0x0BAD00E7  # ENOLCK: no locks available.
    ADDRESS_NOT_AVAILABLE = 0x0BAD00FC  # EADDRNOTAVAIL: address not available.
    DESTINATION_REQUIRED = 0x0BAD00FD  # EDESTADDRREQ: destination address required.
    PROTOCOL_NOT_SUPPORTED = 0x0BAD0104  # EPROTONOSUPPORT: protocol not supported.
    FILE_BUSY = 0x0BAD010D  # ETXTBSY: file in use as a program.
    VALUE_OVERFLOW = 0x0BAD0113  # EOVERFLOW: value too large for its type.
    NO_BUFFER_SPACE = 0x0BAD0125  # ENOBUFS: no buffer space.
    MESSAGE_TOO_LONG = 0x0BAD0129  # EMSGSIZE: message too long.
    WRONG_PROTOCOL_TYPE = 0x0BAD0144  # EPROTOTYPE: wrong protocol for the socket.
    STALE = 0x0BAD0147  # ESTALE: stale file handle.
