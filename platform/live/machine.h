// What makes a live host the machine's own: a group that uses it, and the names of its devices.
#pragma once

#include <string>

namespace live {

// Gives the members of the group the files of the host: its database and devices, not its directory. False:
// `message` says why, in one line.
bool ShareWithGroup(const std::string &directory, std::string &message);

// Links the paths at which the library opens the devices to those of the host. Refuses where another driver's
// device is.
bool LinkDevices(const std::string &directory, std::string &message);

// Removes the links, if they lead to this host.
void UnlinkDevices(const std::string &directory);

}
