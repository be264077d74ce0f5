// Runs a test body once per SIMD target that is both compiled into the
// library and supported by this processor, with dispatch forced to it.
#pragma once

#include <hwy/highway.h>
#include <hwy/targets.h>

#include <string>

namespace velr::test {

template <class Fn>
void forEachTarget(Fn&& fn) {
  for (int64_t target : hwy::SupportedAndGeneratedTargets()) {
    hwy::SetSupportedTargetsForTest(target);
    fn(std::string(hwy::TargetName(target)));
  }
  hwy::SetSupportedTargetsForTest(0);
}

}  // namespace velr::test
