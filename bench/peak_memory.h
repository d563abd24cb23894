#pragma once

#include <cstddef>
#include <functional>

namespace corvane {

/// What `measure` returns in a forked child.
std::size_t measuredInChild(const std::function<std::size_t()>& measure);

/// By how many bytes the resident memory of a process exceeds, at its peak while `action` runs,
/// what it had after `prepare`. Both run in a forked child, one after the other; what counts is
/// every page that is resident, whoever asked for it. See proc(5), clear_refs.
std::size_t peakExtraMemory(const std::function<void()>& prepare,
                            const std::function<void()>& action);

}  // namespace corvane
