// A scenario: the NICs, state and faults of a host, as JSON. platform/scenario/scenario.schema.json documents
// its format.
#pragma once

#include <string>
#include <string_view>

#include "platform/host/control.h"
#include "platform/host/engine.h"

namespace vshost {

// Applies all of it or nothing. False with a message that names the place in the text, says what is wrong
// there and what to do.
bool ApplyScenario(Engine &engine, Control &control, std::string_view json, std::string &message);

}
