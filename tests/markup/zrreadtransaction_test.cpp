#include "markup/zrreadtransaction.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "markup/zrdtdelementread.h"
#include "markup/zrdtdelementreaderstream.h"
#include "markup/zrparse.h"
#include "tests/markup/dump.h"

namespace {

TEST(ReadTransaction, WhatIsGivenBackIsReadAgainAndCountsAgain) {
  std::istringstream stream("a\nb\n");
  ZrDTDElementReaderStream reader(stream);
  {
    ReadTransaction input(reader);
    EXPECT_EQ(input.Get(false), 'a');
    EXPECT_EQ(input.Get(false), '\n');
    input.GiveBack(2);
    EXPECT_EQ(input.Get(false), 'a');
    EXPECT_EQ(input.Get(false), '\n');
    EXPECT_EQ(input.Peek(), 'b');
    input.Undo();
  }
  EXPECT_EQ(reader.Line(), 2u);
  {
    ReadTransaction input(reader);
    EXPECT_EQ(input.TakeThrough("b"), "a\n");
  }
  EXPECT_EQ(reader.Line(), 3u);
  EXPECT_EQ(reader.PeekUnread(), '\n');
}

TEST(ReadTransaction, MisuseIsSaidAndChangesNothing) {
  std::istringstream stream("a");
  ZrDTDElementReaderStream reader(stream);
  testing::internal::CaptureStderr();
  {
    ReadTransaction input(reader);
    input.GiveBack(1);
    EXPECT_EQ(input.Get(false), 'a');
    EXPECT_EQ(input.Get(true), -1);
    EXPECT_EQ(input.Get(false), -1);
    input.GiveBack(4);
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "error! can't give more back than read---> will become an exception... 0 vs. 1\n"
            "reading EOF is an error! ---> will become an exception\n"
            "error! can't give more back than read---> will become an exception... 3 vs. 4\n");
  EXPECT_FALSE(reader.HasUnread());
}

// A state that counts how many of it were made and keeps no token between attempts by itself.
class Digits : public ZrDTDElementRead {
 public:
  static inline int made = 0;
  Digits() : ZrDTDElementRead("digits", {.first = zr::ByteSet("0123456789")}) { ++made; }
  ZrDTDElementRead* Read(ZrDTDElementReader& reader) override {
    ReadTransaction input(reader);
    while (FirstBytes().Has(input.Peek())) own_ += static_cast<char>(input.Get(false));
    text_ = own_;
    return own_.empty() ? nullptr : this;
  }
  std::unique_ptr<ZrDTDElementRead> Clone() const override { return std::make_unique<Digits>(); }

 private:
  std::string own_;
};

TEST(ReadTransaction, StatesOfAProgramAreFreshForEachToken) {
  const ZrDTDDefinition kinds[] = {
      {"numbers", [](ZrDTD& dtd) {
         dtd.AddState(
             std::make_unique<Digits>(),
             [](std::string_view text, ZrDTD&) -> std::unique_ptr<ZrXMLComplexElement> {
               return std::make_unique<ZrXMLGenericElement>(text.substr(0, 2), true);
             },
             false);
       }}};
  Digits::made = 0;
  std::istringstream stream("12");
  ZrDTDElementReaderStream reader(stream, kinds);
  zr::Parse(reader.Splitter(), reader, "numbers", false);
  stream.clear();
  stream.str("34");
  zr::Parse(reader.Splitter(), reader, "numbers", false);
  EXPECT_EQ(zr_test::Dump(*reader.Splitter().top), "ZrXMLContentSplitter::TOP(12 34)");
  EXPECT_EQ(Digits::made, 3);
}

}  // namespace
