#pragma once

/// Marks what the shared library offers to its host; everything else stays hidden.
#define KELVO_EXPORT __attribute__((visibility("default")))
