#include "http/zrheaderfields.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <vector>

namespace {

using Model = std::map<std::string, std::vector<std::string>>;

void ExpectSame(const ZrHeaderFields& fields, const Model& model) {
  Model seen;
  std::string last;
  for (const auto& [name, values] : fields) {
    EXPECT_LT(last, name);
    last = name;
    seen[last].assign(values.begin(), values.end());
  }
  EXPECT_EQ(seen, model);
  for (const auto& [name, values] : model) {
    ASSERT_EQ(fields[name].size(), values.size());
    EXPECT_EQ(fields.First(name), values.front());
    EXPECT_EQ(fields.find(name)->second[values.size() - 1], values.back());
  }
}

TEST(HeaderFields, AreAnOrderedMapOfListsAndCopiesOfEachOtherStayApart) {
  std::mt19937 random(3);
  ZrHeaderFields fields, copy;
  Model model, copyModel;
  for (int step = 0; step < 400; ++step) {
    const std::string name = "~field-" + std::to_string(random() % 40);
    fields.Append(name, std::to_string(step));
    model[name].push_back(std::to_string(step));
    if (random() % 10 == 0) {
      copy = fields;
      copyModel = model;
    } else if (random() % 10 == 0) {
      copy.Append("only-here", "x");
      copyModel["only-here"].push_back("x");
    } else if (random() % 20 == 0) {
      fields = std::move(copy);
      model = copyModel;
      copy = fields;
    }
    ExpectSame(fields, model);
    ExpectSame(copy, copyModel);
  }
  EXPECT_TRUE(fields["absent"].empty());
}

}  // namespace
