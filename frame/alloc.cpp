#include "frame/alloc.h"

namespace velr {

void* allocItems8(int count) { return count < 1 ? nullptr : velMalloc(count * 8); }
void* allocItems4(int count) { return count < 1 ? nullptr : velMalloc(count * 4); }
void* allocBytes(int count) { return count < 1 ? nullptr : velMalloc(count); }

}  // namespace velr
