// Plugging interfaces: the functions of vshost.h that liborkPublic.so exports, which are documented there.
#pragma once

namespace vshost {

int PlugInterface(const char *switchName, const char *portId, const char *interface, int keep);
int UnplugInterface(const char *interface);
int AddLiveNic(const char *interface, int keep);
int RemoveLiveNic(const char *interface);

}
