// Settings of plugged interfaces: what plugging changes besides their MTU, and unplugging puts back.
#pragma once

#include <string>

#include "platform/host/plugs.h"
#include "platform/live/links.h"

namespace live {

// The PLUG_… of what is to be changed at the interface as it is now.
uint32_t FindSettings(const Links &links, const Link &link, const vshost::Plug &plug);

// Those that the plug names. Returns the name of one that the interface refuses; empty: none.
std::string ChangeSettings(const Links &links, const Link &link, const vshost::Plug &plug);
void PutBackSettings(const Links &links, const Link &link, const vshost::Plug &plug);

// "IPv6, large receive offload"
std::string NamesOfSettings(uint32_t changes);

}
