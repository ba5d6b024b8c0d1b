#include <gtest/gtest.h>

#include <cstdlib>
#include <type_traits>

#include "common/internal.h"

TEST(StreamInfo, DefaultsInFieldOrder) {
  static_assert(sizeof(mp4_stream_info) == 44);
  static_assert(std::is_standard_layout_v<mp4_stream_info>);
  mp4_stream_info *info = mp4_create_stream_info();
  ASSERT_NE(info, nullptr);
  const auto *w = reinterpret_cast<const int32_t *>(info);
  EXPECT_EQ(w[0], 2000);
  EXPECT_EQ(w[1], 0);
  EXPECT_EQ(w[2], 0);
  EXPECT_EQ(w[3], 0);
  EXPECT_EQ(w[6], 1000);
  EXPECT_EQ(w[7], 16000);
  EXPECT_EQ(w[8], 30);
  EXPECT_EQ(w[10], 8192);
  std::free(info);
}
