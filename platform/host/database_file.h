// The database file of a host: made whole or not at all, and checked before it is used.
#pragma once

#include <string>

#include "platform/host/connection.h"

namespace vshost {

inline constexpr const char *DATABASE_FILE = "/host.db";
inline constexpr const char *WRITE_LOCK_FILE = "/write.lock";

// Makes the database of a host directory if it is missing, under the lock of `lockFd`.
VsStatus CreateIfMissing(const std::string &directory, int lockFd, std::string &message);
// Refuses a file that is damaged, of another program or of a newer format, by its header.
VsStatus CheckHeader(const std::string &path, std::string &message);
// Refuses a database whose format version, read through the log, or whose table is damaged.
VsStatus CheckTable(Connection &connection, const std::string &path, std::string &message);

}
