// Requests to the driver, made by hand.
#pragma once

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/ioctl.h>
#include <unistd.h>
#include <vswitch_driver.h>

#include "tests/fixture.h"

inline int Ioctl(int descriptor, uint32_t number, const void *input, uint32_t inLength, void *output,
                 uint32_t outLength)
{
    VSwitchRequest request = {inLength, outLength, reinterpret_cast<uint64_t>(input),
                              reinterpret_cast<uint64_t>(output)};
    return ioctl(descriptor, number, &request) < 0 ? errno : 0;
}

// Opens the device, sends a request and closes it. Returns 0 or the errno value.
inline int Ask(uint32_t number, const void *input, uint32_t inLength, void *output, uint32_t outLength,
               const char *device = VSWITCH_DRIVER_DEVICE)
{
    const int descriptor = open(device, O_RDWR);
    if (descriptor < 0) return errno;
    const int error = Ioctl(descriptor, number, input, inLength, output, outLength);
    close(descriptor);
    return error;
}

inline VSwitchInput Input(const char *name = LAB_PORTSET)
{
    VSwitchInput input = {};
    strcpy(input.name.portset, name);
    return input;
}

inline VSwitchInput PortInput(const char *portId, const char *switchId = LAB_ID)
{
    VSwitchInput input = Input(switchId);
    strcpy(input.port.dvPortId, portId);
    return input;
}

inline VSwitchInput UplinkInput(const char *uplink, const char *portset = LAB_PORTSET)
{
    VSwitchInput input = Input(portset);
    strcpy(input.args.uplink.name, uplink);
    return input;
}

inline VSwitchInput GroupInput(uint32_t vlanId, uint32_t kind)
{
    VSwitchInput input = Input();
    input.args.mcast = {vlanId, kind, {239, 1, 1, 1}};
    return input;
}
