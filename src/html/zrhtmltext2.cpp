#include "html/zrhtmltext2.h"

#include <ostream>

void ZrHTML_text2::Write(std::ostream& stream) const {
  WritePrologue(stream);
  stream << text_;
}

void ZrHTML_text2::WriteText(std::ostream& stream) const { stream << text_; }
