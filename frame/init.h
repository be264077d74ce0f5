#pragma once

namespace velr {
// 1 when the processor reported both SSSE3 (0x10) and MOVBE (0x20) at load.
int ssse3MovbeFlag();
}  // namespace velr
