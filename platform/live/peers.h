// Who is at the other end of a socket of vshostd, and what that user may do.
#pragma once

#include <string>

namespace live {

bool IsRoot(int client);

// Whether the file's mode lets the user write to it, as it stood when the connection was made.
bool MayWrite(int client, const std::string &path);

}
