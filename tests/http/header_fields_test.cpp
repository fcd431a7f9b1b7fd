#include "http/header_fields.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <vector>

namespace {

// Short ones, some of eight bytes, and some that differ only behind or by a NUL.
const std::string kNames[] = {"a",
                              std::string("a\0", 2),
                              "ab",
                              "accept-e",
                              "accept-encoding",
                              "accept-eo",
                              "accept-encodinh",
                              ":first:",
                              "content-length",
                              "x-1",
                              "connection",
                              "host",
                              "zz"};

// Whatever is added in whatever way, an ordered map of lists shows the same; copies keep theirs.
TEST(HeaderFields, ShowWhatAMapOfListsShows) {
  std::mt19937 random(5);
  for (int round = 0; round < 300; ++round) {
    ZrHeaderFields fields;
    std::map<std::string, std::vector<std::string>> model;
    ZrHeaderFields copy;
    const auto before = [&] {
      return std::vector<std::string>(copy["host"].begin(), copy["host"].end());
    };
    std::vector<std::string> copied;
    const std::size_t lines = random() % 40;  // beyond those that are gone through
    for (std::size_t line = 0; line < lines; ++line) {
      const std::string& name = kNames[random() % std::size(kNames)];
      std::string value(random() % 20, static_cast<char>('a' + random() % 26));
      if (random() % 4 == 0) {
        const std::string text = name + value;
        text.copy(fields.Space(text.size() + 8), text.size());
        fields.Enter(name.size(), value.size());
      } else if (random() % 4 == 0 && !fields["host"].empty()) {
        value = fields["host"].front();
        fields.Append(name, fields["host"].front());  // of its own text, which may move
      } else {
        fields.Append(name, value);
      }
      model[name].push_back(value);
      if (random() % 8 == 0) {
        copy = fields;
        copied = before();
      }
    }
    auto expected = model.begin();
    for (const auto& [name, values] : fields) {
      ASSERT_NE(expected, model.end());
      EXPECT_EQ(name, expected->first);
      EXPECT_EQ(std::vector<std::string>(values.begin(), values.end()), expected->second);
      ++expected;
    }
    EXPECT_EQ(expected, model.end());
    for (const std::string& name : kNames) {
      const auto values = fields[name];
      EXPECT_EQ(std::vector<std::string>(values.begin(), values.end()),
                model.contains(name) ? model[name] : std::vector<std::string>());
      EXPECT_EQ(fields.contains(name), model.contains(name)) << name;
    }
    EXPECT_EQ(before(), copied);
  }
}

}  // namespace
