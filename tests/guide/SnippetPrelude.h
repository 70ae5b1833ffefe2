// SPDX-License-Identifier: MIT
// What the code fragments of README.md and docs/*.md assume, as the pages
// say before their first fragment: the public headers, the standard headers
// they use, and these using-declarations. Whole programs on the pages include
// what they need themselves and do not see this file.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "vexutil/vexutil.h"

using namespace vexutil::eventmgr;  // NOLINT(google-build-using-namespace): the pages' own convention
using vexutil::inputreqevt::InputRequestEvent;
