#pragma once

/// @file
/// All that a test of an application's tasks is written with. docs/writing-a-daemon.md shows it in
/// use.

#include "zor/testing/Assertions.h"
#include "zor/testing/Clock.h"
#include "zor/testing/Eventually.h"
#include "zor/testing/Link.h"
#include "zor/testing/Platform.h"
#include "zor/testing/RecordingTask.h"
#include "zor/testing/Runtime.h"
#include "zor/testing/Wait.h"
