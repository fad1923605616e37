#pragma once

namespace kiv::detail {

/// Returns `KivAPI` to the state of a fresh process: no token, the standard networking type and no instances
/// (those already handed out live on with their holders). For tests, which run many cases in one process.
void resetAPIState();

}  // namespace kiv::detail
