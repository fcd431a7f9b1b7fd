#include "base/string_buffer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

namespace {

// Any mix of operations shows the bytes that a plain text would, whatever moves inside the buffer.
TEST(StringBuffer, EveryMixOfOperationsKeepsTheBytes) {
  std::mt19937 random(7);
  ZrStringBuf buffer;
  std::string model;
  char next = 'a';
  for (int step = 0; step < 20000; ++step) {
    const std::size_t size = random() % 100;
    const auto chance = random() % 7;
    if (chance < 2) {
      const std::string bytes(size, next++);
      buffer.Append(bytes);
      model += bytes;
    } else if (chance == 2) {
      const auto space = buffer.Prepare(size);
      ASSERT_EQ(space.size(), size);
      std::fill(space.begin(), space.end(), next);
      const std::size_t filled = random() % (size + 1);
      if (filled != 0) buffer.Commit(filled);  // what is not committed must not show
      model.append(filled, next++);
    } else if (chance < 5) {
      buffer.Consume(2 * size);
      model.erase(0, 2 * size);
    } else if (chance == 5) {
      ZrStringBuf other = std::move(buffer);
      EXPECT_TRUE(buffer.Empty());
      buffer = std::move(other);
      if (random() % 4 == 0) {  // the same bytes, where somebody else keeps them
        const auto owner = std::make_shared<const std::string>(model);
        buffer = ZrStringBuf(*owner, owner);
      }
    } else if (random() % 50 == 0) {
      EXPECT_EQ(buffer.Take(), std::exchange(model, {}));
    }
    ASSERT_EQ(buffer.Unread(), model);
    ASSERT_EQ(buffer.Size(), model.size());
  }
}

}  // namespace
