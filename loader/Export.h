#pragma once

// The layer builds with hidden visibility; this marks what the platform (and
// the tests) may reach.
#define KAM_EXPORT __attribute__((visibility("default")))
