#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "velr.h"

namespace {

int sizeOf(Vel32u order, int algorithm) {
  int size = -1;
  EXPECT_EQ(velrSHGetSize_32f(order, algorithm, &size), velStsNoErr);
  return size;
}

TEST(SHContext, Sizes) {
  EXPECT_EQ(sizeOf(0, 0), 16);
  EXPECT_EQ(sizeOf(15, 0), 16);
  EXPECT_EQ(sizeOf(0, 1), 48);
  EXPECT_EQ(sizeOf(1, 1), 48);    // T = 3: 24 + 30 -> 32, + 16
  EXPECT_EQ(sizeOf(2, 1), 80);
  EXPECT_EQ(sizeOf(15, 1), 1104);  // T = 136: 1088, + 16
  EXPECT_EQ(sizeOf(100, 1), 41232);  // no order limit: T = 5151
  int size = -1;
  EXPECT_EQ(velrSHGetSize_32f(16, 0, &size), velStsSizeErr);
  EXPECT_EQ(velrSHGetSize_32f(3, 2, &size), velStsRangeErr);
  EXPECT_EQ(velrSHGetSize_32f(3, -1, &size), velStsRangeErr);
  EXPECT_EQ(size, -1);
  EXPECT_EQ(velrSHGetSize_32f(3, 1, nullptr), velStsNullPtrErr);
}

float bitsToFloat(std::uint32_t b) {
  float f;
  std::memcpy(&f, &b, 4);
  return f;
}

// Within one float spacing of the exact value.
void expectCoefficient(float got, long double exact, const char* what, int l, int m) {
  const float f = static_cast<float>(exact);
  const float ulp = std::nextafter(std::fabs(f), INFINITY) - std::fabs(f);
  EXPECT_LE(std::fabs(got - exact), ulp) << what << " l=" << l << " m=" << m;
}

// Tables, placement and clearing, for buffers at every offset from 16-byte
// alignment (with the slack such a buffer needs).
TEST(SHContext, RecurrenceTablesAndPlacement) {
  const Vel32u order = 15;
  const int size = sizeOf(order, 1);
  const int t = 136;
  for (int offset = 0; offset < 16; offset += 4) {
    alignas(16) unsigned char buf[2048];
    std::memset(buf, 0xCD, sizeof buf);
    auto* s = reinterpret_cast<VelrSHState*>(buf + offset);
    ASSERT_EQ(velrSHInit_32f(s, order, 1), velStsNoErr);
    EXPECT_EQ(s->order, order);
    EXPECT_EQ(s->algorithm, 1);
    EXPECT_EQ(s->tableA, 16u + (16 - offset) % 16) << offset;
    EXPECT_EQ((offset + s->tableA) % 16, 0u);
    EXPECT_EQ(s->tableB, s->tableA + (4 * t + 15) / 16 * 16);
    EXPECT_EQ((offset + s->tableB) % 16, 0u);
    const float* a = reinterpret_cast<const float*>(buf + offset + s->tableA);
    const float* b = reinterpret_cast<const float*>(buf + offset + s->tableB);

    // Everything within the queried size that is not a table entry is zero;
    // nothing after it is touched.
    const unsigned char* bytes = buf + offset;
    for (int i = 16; i < size; ++i) {
      const bool inA = i >= int(s->tableA) && i < int(s->tableA) + 4 * t;
      const bool inB = i >= int(s->tableB) && i < int(s->tableB) + 4 * t;
      if (!inA && !inB) ASSERT_EQ(bytes[i], 0) << offset << " byte " << i;
    }
    for (int i = std::max<int>(size, s->tableB + 4 * t); i < size + 16; ++i) {
      ASSERT_EQ(bytes[i], 0xCD) << offset << " byte " << i;
    }

    EXPECT_EQ(a[0], bitsToFloat(0x3E906EBB));
    EXPECT_EQ(a[1], bitsToFloat(0x3EFA2A1D));
    EXPECT_EQ(a[2], bitsToFloat(0xBEFA2A1D));
    EXPECT_EQ(b[0], 0.0f);
    EXPECT_EQ(b[1], 0.0f);
    EXPECT_EQ(b[2], 0.0f);
    for (int l = 2; l <= 15; ++l) {
      const int block = l * (l + 1) / 2;
      const long double L = l;
      for (int m = 0; m < l; ++m) {
        expectCoefficient(a[block + m], std::sqrt((4 * L * L - 1) / (L * L - m * m)), "a", l, m);
        const long double bm = -std::sqrt((2 * L + 1) * ((L - 1) * (L - 1) - m * m) /
                                          ((2 * L - 3) * (L * L - m * m)));
        expectCoefficient(b[block + m], bm, "b", l, m);
      }
      expectCoefficient(a[block + l], -std::sqrt((2 * L + 1) / (2 * L)), "s", l, l);
      EXPECT_EQ(b[block + l - 1], 0.0f);
      EXPECT_EQ(b[block + l], 0.0f);
    }
  }
}

TEST(SHContext, InitStatusesAndReinitialisation) {
  alignas(16) unsigned char buf[256];
  std::memset(buf, 0xCD, sizeof buf);
  auto* s = reinterpret_cast<VelrSHState*>(buf);
  EXPECT_EQ(velrSHInit_32f(nullptr, 3, 0), velStsNullPtrErr);
  EXPECT_EQ(velrSHInit_32f(s, 16, 0), velStsSizeErr);
  EXPECT_EQ(velrSHInit_32f(s, 3, 2), velStsRangeErr);
  for (unsigned char c : buf) ASSERT_EQ(c, 0xCD);

  // Order 1 writes only the seeds.
  ASSERT_EQ(velrSHInit_32f(s, 1, 1), velStsNoErr);
  for (int i = 16 + 12; i < 48; ++i) EXPECT_EQ(buf[i], 0) << i;
  // A closed-form context over it: 16 bytes, tables gone, the rest untouched.
  ASSERT_EQ(velrSHInit_32f(s, 3, 0), velStsNoErr);
  EXPECT_EQ(s->order, 3u);
  EXPECT_EQ(s->algorithm, 0);
  EXPECT_EQ(s->tableA, 0u);
  EXPECT_EQ(s->tableB, 0u);
  EXPECT_EQ(buf[16], 0xBB);  // low byte of the first seed, left alone
  EXPECT_EQ(buf[48], 0xCD);
}

}  // namespace
