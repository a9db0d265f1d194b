// SPDX-License-Identifier: Apache-2.0
// The hooks that every token command calls. They are exported so that a tracing or locking build can replace them.
#include <cstdint>

#include "kelmtrova/token.h"

void MYTRACE(const char * /*format*/, ...) {}

// The handle itself is the lock token: a null handle is a lock that was not obtained.
std::uint64_t MyLock(const SCardConnection *handle) { return reinterpret_cast<std::uintptr_t>(handle); }

void MyUnlock(std::uint64_t /*token*/) {}

std::uint64_t(TEST)(std::uint64_t /*value*/) { return 0; }
