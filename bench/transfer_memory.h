#pragma once

namespace corvane {

/// By how many MiB the resident memory of an agent has grown after 1,000 reads and 1,000 writes of
/// 1 MiB each, once it has had nothing to do for a moment.
double growthAfterTransfers();

}  // namespace corvane
