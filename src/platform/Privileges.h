#pragma once

namespace kelvo {

/// Returns whether the real and the effective user or group differ: the program is set-user-id or set-group-id, and its
/// caller must not steer what it does with its owner's rights. Once true, it stays true: the library never starts then.
[[nodiscard]] bool actsForAnotherUser() noexcept;

/// Returns whether `actsForAnotherUser` has returned true before. Asks nobody, so it suits every host call.
[[nodiscard]] bool isRefusedForItsRights() noexcept;

/// Returns whether the kernel started the program with rights that its caller does not have, file capabilities for
/// example. The library ignores the environment then. Constant.
[[nodiscard]] bool mustIgnoreEnvironment() noexcept;

}  // namespace kelvo
