// How a write reaches the data path of a live host: after a commit, the writer waits until vshostd has
// followed it.
#pragma once

#include <string>

namespace vshost {

// Whether vshostd is to answer for the host.
bool IsLive(const std::string &directory);

// Returns at once when the host is not a live one. While its daemon is started anew it waits for it, up to
// 5 seconds; the next daemon follows what it has missed.
void AwaitFollower(const std::string &directory);

// This thread is the one that follows: its own writes don't wait for it.
void ThisThreadFollows();

}
