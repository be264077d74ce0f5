// The two subcommands. Both print what they did and how long each stage
// took to `out`, and throw UserError for problems the user can fix.
#pragma once

#include <iosfwd>

#include "cli.h"

namespace velr::demo {

void runRender(const RenderOptions& options, std::ostream& out);
void runVolume(const VolumeOptions& options, std::ostream& out);

}  // namespace velr::demo
