#pragma once

/// Marks a name that the shared library exports. All other names stay hidden.
#define KELVO_EXPORT __attribute__((visibility("default")))
