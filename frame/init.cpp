// Load-time initialisation: the processor features are read once when the
// library is attached. The flag records SSSE3 together with MOVBE, which the
// family's wider builds key on; nothing in this build consults it, but it is
// part of the attach contract and costs one cpuid read.
#include "frame/init.h"

#include "velcore.h"

namespace velr {

int g_ssse3MovbeFlag = 0;

namespace {
__attribute__((constructor)) void attachLibrary() {
  const unsigned long long f = velGetEnabledCpuFeatures();
  g_ssse3MovbeFlag = ((f & 0x10) != 0 && (f & 0x20) != 0) ? 1 : 0;
}
}  // namespace

int ssse3MovbeFlag() { return g_ssse3MovbeFlag; }

}  // namespace velr
