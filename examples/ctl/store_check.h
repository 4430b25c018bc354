// "tarnctl store check": the checks that the service makes before it trusts its program directory and its store, one by
// one and with reasons, since the service itself can only stop with "access denied". Nothing is changed.
#pragma once

namespace app {

// Prints a line for each refusal and for what else is worth knowing; with json an object a line. Returns the exit code: 0
// if the service would refuse nothing.
int check_store(bool json);

} // namespace app
