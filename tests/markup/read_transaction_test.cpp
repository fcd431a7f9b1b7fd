#include "markup/read_transaction.h"

#include <gtest/gtest.h>

#include "markup/reader_state.h"
#include "tests/markup/dump.h"
#include "tests/support/captured.h"

namespace {

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
  EXPECT_EQ(zrtest::CapturedErrors(),
            "error! can't give more back than read---> will become an exception... 0 vs. 1\n"
            "reading EOF is an error! ---> will become an exception\n"
            "error! can't give more back than read---> will become an exception... 3 vs. 4\n");
  EXPECT_FALSE(reader.HasUnread());
}

// A state that does not forget its last token by itself.
struct Digit : ZrDTDElementRead {
  Digit() : ZrDTDElementRead("digit", {.first = zr::ByteSet("0123456789")}) {}
  ZrDTDElementRead* Read(ZrDTDElementReader& reader) override {
    own += static_cast<char>(ReadTransaction(reader).Get(false));
    text_ = own;
    return this;
  }
  std::unique_ptr<ZrDTDElementRead> Clone() const override { return std::make_unique<Digit>(); }
  std::string own;
};

TEST(ReadTransaction, StatesOfAProgramAreFreshForEachToken) {
  const auto fill = [](ZrDTD& dtd) {
    const auto make = [](std::string_view text, ZrDTD&) -> std::unique_ptr<ZrXMLComplexElement> {
      return std::make_unique<ZrXMLGenericText>(text);
    };
    dtd.AddState(std::make_unique<Digit>(), make, false);
  };
  const ZrDTDDefinition kinds[] = {{"numbers", fill}};
  EXPECT_EQ(zrtest::Read("12", "numbers", kinds), "'1' '2' @1");
}

TEST(ReadTransaction, AttributesStayUntilTheNextTag) {
  std::istringstream stream("<a x='the value of x' y=\"\"/>" + zrtest::Repeated("word", 40'000) +
                            "<b/>");
  ZrDTDElementReaderStream reader(stream);
  const auto read = [&] { zr::Parse(reader.Splitter(), reader, "xml", true); };
  read();
  read();  // a text longer than the window
  ASSERT_EQ(reader.Attributes().size(), 2u);
  EXPECT_EQ(reader.Attributes()[0].name.text(), "x");
  EXPECT_EQ(reader.Attributes()[0].value, "the value of x");
  EXPECT_EQ(reader.Attributes()[1].value, "");
  read();
  EXPECT_TRUE(reader.Attributes().empty());
}

}  // namespace
