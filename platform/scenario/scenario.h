// A scenario: what is plugged in around a host and what happens on it, as JSON. Its format is documented in
// platform/scenario/scenario.schema.json.
#pragma once

#include <string>
#include <string_view>

#include "platform/host/control.h"
#include "platform/host/engine.h"

namespace vshost {

// Applies all of it or nothing. False with a message that names the place in the text, what is wrong
// there and what to do about it.
bool ApplyScenario(Engine &engine, Control &control, std::string_view json, std::string &message);

}
