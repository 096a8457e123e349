#pragma once

#include <QString>

// The networks of the Parakeet benchmarks, written by the fixture generator into the build
// folder on first use (never committed): the tiny tone networks of the tests ("tones/split",
// "tones/community") and networks of a real model's size with random weights
// ("realistic/realistic" and "realistic/realistic-fixed" in the split layout,
// "realistic/realistic-int8" in the community int8 layout). Exits with a message when the
// generator fails.
namespace vocari::bench {

// The folder of a tone network set, such as "split".
QString toneNetworks(const char *name);
// The folder of a realistic network set, such as "realistic-int8".
QString realisticNetworks(const char *name);

} // namespace vocari::bench
