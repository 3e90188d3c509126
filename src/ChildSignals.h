#pragma once

#include <array>
#include <csignal>

namespace zor {

/// What is done with each signal.
using SignalActions = std::array<struct sigaction, NSIG>;

/// Around the making of a child that is to run another program:
///
///     const sigset_t before = BlockSignals();
///     if (fork() == 0) {
///         ResetSignals(nullptr);
///         execl(...);
///     }
///     pthread_sigmask(SIG_SETMASK, &before, nullptr);
///
/// A program inherits which signals are blocked and which are ignored. A daemon that waits for
/// SIGTERM blocks it, and its menus and boxes would be deaf to it.

/// Blocks every signal of the calling thread, so that no handler of this program runs in the child.
///
/// @return the mask to go back to
sigset_t BlockSignals();

/// In the child: gives every signal its default and blocks none. Only tells the kernel something,
/// so that the child of a vfork() may call it; errno, which is its parent's, changes.
///
/// @param before  where to store what was done with them, or null
void ResetSignals(SignalActions* before);

/// Goes back to what ResetSignals() has stored.
void SetSignals(const SignalActions& actions);

} // namespace zor
