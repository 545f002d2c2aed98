#include "kernel/channel.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "core/status.h"

VsStatus ZORIoctl(const char *path, int32_t request, ZorRequestHeader *header)
{
    if (!path) return STATUS_BAD_PARAM;
    const int device = open(path, O_RDWR);
    if (device < 0) return ErrnoToStatus(errno);
    // The number is passed on sign-extended, as the kernel's drivers see it.
    const int result = ioctl(device, static_cast<unsigned long>(request), header);
    close(device);
    return result < 0 ? ErrnoToStatus(errno) : STATUS_OK;
}

VsStatus Request::ResolveName(const char *alias) { return DVSAliasToPortsetName(alias, input.name); }

VsStatus Request::ResolvePort(const char *alias, const char *dvPortId)
{
    static_assert(SWITCH_ID_SIZE <= sizeof(input.name));
    if (VsStatus status = DVSAliasToSwitchId(alias, input.name)) return status;
    // The bytes after the id's NUL are not part of it.
    const size_t length = strlen(input.name);
    memset(input.name + length, 0, SWITCH_ID_SIZE - length);
    text::CopyIntoZeros(input.dvPortId, dvPortId, sizeof(input.dvPortId));
    return STATUS_OK;
}

VsStatus Request::Query(int32_t command, void *output, uint32_t length)
{
    header.outLength = length;
    header.outPtr = reinterpret_cast<uint64_t>(output);
    return ZORIoctl(ZOR_DEVICE, command, &header);
}

VsStatus Request::QueryBuffer(int32_t command, uint32_t length, void **output)
{
    void *buffer = calloc(1, length);
    if (!buffer) return STATUS_NO_MEMORY;
    if (VsStatus status = Query(command, buffer, length)) {
        free(buffer);
        return status;
    }
    *output = buffer;
    return STATUS_OK;
}

VsStatus Request::QueryList(int32_t command, const ListShape &shape, void **list)
{
    ZorMcastStatsHeader first = {};
    static_assert(sizeof(first) >= sizeof(ZorListHeader));
    if (VsStatus status = Query(command, &first, shape.headerSize)) return status;
    return FetchList(command, shape, &first, list);
}

VsStatus Request::FetchList(int32_t command, const ListShape &shape, const void *firstHeader, void **list)
{
    uint32_t count = 0;
    memcpy(&count, static_cast<const uint8_t *>(firstHeader) + shape.countOffset, sizeof(count));
    *list = nullptr;
    // The length wraps as the driver's own does; the library reads and writes no more than that.
    const uint32_t size = count * shape.entrySize + shape.headerSize;
    void *buffer = calloc(1, size);
    if (!buffer) return STATUS_NO_MEMORY;
    if (count == 0) {
        memcpy(buffer, firstHeader, shape.headerSize);
    } else if (VsStatus status = Query(command, buffer, size)) {
        free(buffer);
        return status;
    }
    *list = buffer;
    return STATUS_OK;
}
