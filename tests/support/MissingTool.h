#pragma once

// A test that needs a program or service from the system (a display, a sound server, a bus,
// GTK for Python) skips where it is missing on a developer's machine, but fails in continuous
// integration, where scripts/setup installs everything: there a skip would hide a broken set-up
// behind a green run.

#include <QtGlobal>
#include <gtest/gtest.h>

#define VOCARI_SKIP_FOR_MISSING(reason)                                                            \
    do {                                                                                           \
        if (qEnvironmentVariableIsSet("CI"))                                                       \
            GTEST_FAIL() << "missing in CI, where it must be installed: " << (reason);             \
        GTEST_SKIP() << (reason);                                                                  \
    } while (false)
