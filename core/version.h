#pragma once

namespace corvane {

/// The version that the agent logs at start and reports to the host.
inline constexpr char agentVersion[] = "1.3-MirelVirtIO-221.100.2~2982";

/// The program's identifier in the system log.
inline constexpr char programIdentifier[] = "corvane";

}  // namespace corvane
