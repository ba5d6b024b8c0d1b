// The card seam and the simulated card that the fault and cut tests stand on.
#include <gtest/gtest.h>

#include "buffer/card.h"
#include "common/internal.h"
#include "support/media.h"
#include "support/sim_card.h"

using testsupport::SimCard;

TEST(SimCard, LogsWritesAtTheirOffsetsAndReplaysThemIntoTheFile) {
  testsupport::TempDir dir;
  const std::string path = dir.file("a.mp4");
  SimCard card;
  FILE *f = mp4_fopen(path.c_str(), "wb");
  ASSERT_NE(f, nullptr);
  const std::vector<uint8_t> big(10000, 0xAB);
  ASSERT_EQ(mp4_put_buffer(f, big.data(), static_cast<unsigned>(big.size())), 0);
  ASSERT_EQ(mp4_fseek(f, 4, SEEK_SET), 0);
  ASSERT_EQ(mp4_put_be32(f, 0x01020304), 0);
  ASSERT_EQ(mp4rec::card::sync(f), 0);
  ASSERT_EQ(mp4_fclose(f), 0);

  const auto log = card.log(path);
  ASSERT_GE(log.size(), 3u);
  EXPECT_TRUE(log.back().sync);
  EXPECT_EQ(testsupport::replay(log, log.size()), testsupport::read_file(path));
  EXPECT_EQ(testsupport::read_file(path)[7], 0x04);
  // The first write alone, torn after 512 bytes.
  EXPECT_EQ(testsupport::replay(log, 1, 512).size(), 512u);
  EXPECT_EQ(card.syncs(), 1);
}

TEST(SimCard, FailsTheChosenWriteOnceOrForGood) {
  testsupport::TempDir dir;
  for (const auto mode : {SimCard::Fault::kOnce, SimCard::Fault::kSticky}) {
    SimCard card;
    card.fault(2, mode, ENOSPC);
    FILE *f = mp4_fopen(dir.file("b.mp4").c_str(), "wb");
    ASSERT_NE(f, nullptr);
    setvbuf(f, nullptr, _IONBF, 0);
    const uint8_t b[4] = {1, 2, 3, 4};
    EXPECT_EQ(mp4_put_buffer(f, b, 4), 0);
    EXPECT_EQ(mp4_put_buffer(f, b, 4), -1);
    clearerr(f);
    EXPECT_EQ(mp4_put_buffer(f, b, 4), mode == SimCard::Fault::kOnce ? 0 : -1);
    mp4_fclose(f);
  }
}

TEST(SimCard, OtherPathsOpenAsUsual) {
  testsupport::TempDir dir;
  SimCard card;
  FILE *f = mp4_fopen(dir.file("side.mp2").c_str(), "wb+");
  ASSERT_NE(f, nullptr);
  EXPECT_GE(fileno(f), 0);
  mp4_fclose(f);
  EXPECT_TRUE(card.paths().empty());
}
