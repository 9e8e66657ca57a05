#pragma once

#include <string>

namespace kelvo::log {

/// Chooses the home of this process: KELVO_HOME, else a home per application id,
/// `${XDG_DATA_HOME:-$HOME/.local/share}/kelvo/kelvo-log/<id>`. Characters that a file name cannot have are
/// percent-encoded. A bundle with an identifier keeps its own home. Call before the library starts. A later call has no
/// effect.
///
/// Earlier versions had one home for all ids, `${XDG_DATA_HOME:-$HOME/.local/share}/kelvo-log`. If something unsent is
/// in it, another kelvo-log sends it first, for `waitSeconds` at most. Reports that in one line unless `isQuiet`.
void useHomeOf(const std::string& appId);
/// Sets what `useHomeOf` uses.
void setDraining(double waitSeconds, bool isQuiet);

}  // namespace kelvo::log
