#include "html/command_compiler.h"

#include <gtest/gtest.h>

namespace {

const std::string kError = "/* error */\n";

std::string Lit(const std::string& count, const std::string& ramp) {
  return "!linearanimation(.lamp,3s,infinite," + count + ",on,off," + ramp + ")";
}

TEST(CommandCompiler, WritesRuleAndBothKeyframeBlocksOfEachElement) {
  const std::string frames0 =
      "0% {\n  opacity: 1;\n}\n45% {\n  opacity: 1;\n}\n50% {\n  opacity: 0;\n}\n"
      "95% {\n  opacity: 0;\n}\n100% {\n  opacity: 1;\n}\n}\n\n";
  const std::string frames1 =
      "0% {\n  opacity: 0;\n}\n45% {\n  opacity: 0;\n}\n50% {\n  opacity: 1;\n}\n"
      "95% {\n  opacity: 1;\n}\n100% {\n  opacity: 0;\n}\n}\n\n";
  EXPECT_EQ(
      zr::EvaluateCommand("!linearanimation('#x',3s,infinite,2,'opacity: 1;','opacity: 0;',5)"),
      "#x0 {\n  -webkit-animation: x0 3s infinite;\n  animation: x0 3s infinite;\n}\n\n"
      "@-webkit-keyframes x0 {\n" +
          frames0 + "@keyframes x0 {\n" + frames0 +
          "#x1 {\n  -webkit-animation: x1 3s infinite;\n  animation: x1 3s infinite;\n}\n\n"
          "@-webkit-keyframes x1 {\n" +
          frames1 + "@keyframes x1 {\n" + frames1);
  // The ones in the middle are lit during their share.
  EXPECT_NE(
      zr::EvaluateCommand(Lit("3", "10"))
          .find("@keyframes lamp1 {\n0% {\n  off\n}\n23.3333% {\n  off\n}\n33.3333% {\n  on\n}\n"
                "56.6667% {\n  on\n}\n66.6667% {\n  off\n}\n100% {\n  off\n}\n}\n\n"),
      std::string::npos);
}

TEST(CommandCompiler, MalformedCommandsGiveTheErrorText) {
  for (const std::string text :
       {"", "!", "linearanimation(.a,1s,1,2,a,b,5)", "!linearanimation",
        "!linearanimation (.a,1s,1,2,a,b,5)", "!linearAnimation(.a,1s,1,2,a,b,5)", "!x(",
        "!linearanimation()", "!linearanimation(.a,1s,1,2,a,b)",
        "!linearanimation(.a,1s,1,2,a,b,5"}) {
    EXPECT_EQ(zr::EvaluateCommand(text), kError) << text;
    EXPECT_EQ(zr::EvaluateCommand(text + '\0'), kError) << text;
  }
  constexpr std::pair<const char*, const char*> kNumbers[] = {
      {"", "5"},   {"-2", "5"},         {"+2", "5"}, {"'2'", "5"}, {"10001", "5"},
      {"2", "-5"}, {"4294967297", "5"}, {"2", ""},   {"1", "x"},   {"2", "99999999999"}};
  for (const auto& [count, ramp] : kNumbers) {
    EXPECT_EQ(zr::EvaluateCommand(Lit(count, ramp)), kError) << count << ' ' << ramp;
  }
}

TEST(CommandCompiler, TakesNumbersAfterBlanksAndUpToTheLimit) {
  for (const char* few : {"0", "1"}) EXPECT_EQ(zr::EvaluateCommand(Lit(few, "5")), "");
  EXPECT_EQ(zr::EvaluateCommand(Lit("\r 2 lamps", "\v5%")), zr::EvaluateCommand(Lit("2", "5")));
  EXPECT_EQ(zr::EvaluateCommand("!linearanimation(.lamp,3s,infinite,2,on,off,5,more"),
            zr::EvaluateCommand(Lit("2", "5")));
  const std::string text = zr::EvaluateCommand(Lit("10000", "5"));
  EXPECT_NE(text.find("@keyframes lamp9999 {"), std::string::npos);
  EXPECT_EQ(text.find("lamp10000"), std::string::npos);
}

TEST(CommandCompiler, AnswersBeyondTheLimitAreRefused) {
  // 100 elements write the lit value about 400 times: 64 MiB are reached with 160 KiB of it.
  const auto lamps = [](std::size_t size) {
    return zr::EvaluateCommand("!linearanimation(.a,1s,1,100," + std::string(size, 'v') + ",b,5)");
  };
  EXPECT_EQ(lamps(zr::kMaxAnimationBytes / 390), kError);
  EXPECT_GT(lamps(zr::kMaxAnimationBytes / 500).size(), zr::kMaxAnimationBytes / 2);
}

}  // namespace
