// velr-demo: a ray-traced picture and a processed volume, with timings, to
// show what the library does. See --help.
#include <iostream>
#include <string>
#include <vector>

#include "cli.h"

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  return velr::demo::runDemo(args, std::cout, std::cerr);
}
