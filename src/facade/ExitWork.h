#pragma once

namespace kelvo {

/// The work at the end of a process: stores accepted calls, for half a second at most, ends the network and writes the
/// log. The exit hook calls it; a program that is linked without the load hooks calls it itself.
void finishAtExit() noexcept;

}  // namespace kelvo
