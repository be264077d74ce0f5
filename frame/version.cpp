// The library's version records. Two exist so that the name can tell whether
// the processor reports SSE4.2 (the "+"), as the whole family does.
#include "velr.h"

namespace {

constexpr VelLibraryVersion kVersionPlus = {7,
                                            1,
                                            0,
                                            36264,
                                            {'t', '7', '\0', '\0'},
                                            "velRR SSE4.1/4.2 (t7)+",
                                            "7.1.0 (r36264)",
                                            "Jul 23 2012"};
constexpr VelLibraryVersion kVersionPlain = {7,
                                             1,
                                             0,
                                             36264,
                                             {'t', '7', '\0', '\0'},
                                             "velRR SSE4.1/4.2 (t7)",
                                             "7.1.0 (r36264)",
                                             "Jul 23 2012"};

}  // namespace

extern "C" const VelLibraryVersion* velrGetLibVersion(void) {
  return ownGetFeature(0x80, 0) != 0 ? &kVersionPlus : &kVersionPlain;
}
