#pragma once

namespace corvane {

/// Starts the thread that reaps children, as the agent's start-up does. Before any other thread.
void startReaper();

}  // namespace corvane
