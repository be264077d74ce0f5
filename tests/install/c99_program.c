/* A C99 user of the installed headers and libraries. */
#include <stdio.h>
#include <string.h>

#include <velr.h>

int main(void) {
  const VelLibraryVersion* v = velrGetLibVersion();
  int size = 0;
  VelrTriangleAccel rec;
  const Vel32f vertices[9] = {0, 0, 0, 1, 0, 0, 0, 1, 0};
  const int indices[4] = {0, 1, 2, 0};
  if (v == NULL || v->major != 7 || strncmp(v->Name, "velRR", 5) != 0) return 1;
  if (velrTriangleAccelGetSize(&size) != velStsNoErr || size != (int)sizeof(rec)) return 2;
  if (velrTriangleAccelInit(&rec, vertices, indices, 1) != velStsNoErr) return 3;
  if ((rec.axes & 0x3F) != 0x21) return 4;
  printf("%s %s\n", v->Name, v->Version);
  return 0;
}
