// The checks of the account list, a part of the store with rules of its own.
#pragma once

#include "check.h"
#include "probe.h"

namespace emulator::check {

[[nodiscard]] Checks account_checks(const Platform &platform);

}  // namespace emulator::check
